#include "cli/tool_runner.h"

#include <gtest/gtest.h>

namespace zorv_testing {

ToolResult runTool(const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env, double timeoutSeconds) {
  std::vector<std::string> argv{"zorv-label-manager-tool"}, envTexts;
  argv.insert(argv.end(), args.begin(), args.end());
  for (const std::string& entry : currentEnvironment())
    if (env.count(entry.substr(0, entry.find('='))) == 0) envTexts.push_back(entry);
  for (const auto& [name, value] : env)
    if (!value.empty()) envTexts.push_back(name + "=" + value);
  return runChild(ZORV_TOOL_PATH, argv, envTexts, timeoutSeconds);
}

void expectResult(const ToolResult& r, const std::string& out, int status, const std::string& err) {
  EXPECT_EQ(r.out, out);
  EXPECT_EQ(r.err, err);
  EXPECT_EQ(r.status, status);
  EXPECT_EQ(r.signal, 0);
}

std::string fakeLabelManagerDir() { return ZORV_FAKE_LABELMGR_DIR; }

void FakeLabelManager::expect(const std::vector<std::string>& args, const std::string& out,
                              int status, const std::string& err) const {
  expectResult(runTool(args, {{"LD_LIBRARY_PATH", fakeLabelManagerDir()},
                              {"ZORV_FAKE_LABELMGR_SCRIPT", dir_ / "script"},
                              {"ZORV_FAKE_LABELMGR_LOG", dir_ / "calls"}}),
               out, status, err);
}

}  // namespace zorv_testing
