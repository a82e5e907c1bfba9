// The tool against our own label manager library, on real files with real
// attributes, with its state and a fake package database in a temporary
// directory.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "cli/tool_runner.h"
#include "label/label.h"
#include "testing/own_library_test.h"

namespace zorv_testing {
namespace {

class OwnLabelMgrE2eTest : public OwnLibraryTest {
 protected:
  void SetUp() override {
    writeTextFile(file_, "x");
    writeTextFile(base_ + "/dpkg/status", "Package: vim\nStatus: install ok installed\n\n");
    writeTextFile(base_ + "/dpkg/info/vim.list", "/.\n" + base_ + "/files\n");
  }

  static ToolResult run(const std::vector<std::string>& args) { return runTool(args); }

  const std::string file_ = base_ + "/files/app.conf";
};

TEST_F(OwnLabelMgrE2eTest, FieldsRestoreAndPackageIds) {
  EXPECT_EQ(run({"-a", "-o", file_, "1f", "2", "3"}).out, "set file oid success. " + file_ + "\n");
  EXPECT_EQ(run({"-a", "-t", file_, "c"}).out, "set file tid success. " + file_ + "\n");
  EXPECT_EQ(run({"-a", "-n", file_, "5"}).status, 0);
  EXPECT_EQ(run({"-g", "-o", file_, "-t", file_}).out,
            file_ + " oid:000000000000001f-0000000000000002-0000000000000003\n" + file_ +
                " tid:0000000c\n");
  EXPECT_EQ(run({"-g", "-u", "-o", "--all"}).out,
            file_ + ", oid : 0x000000000000001f-0x0000000000000002-0x0000000000000003\n");
  EXPECT_EQ(run({"-d", "-o", file_}).out,
            kDeleteRule + file_ + "\ndelete file oid success. " + file_ + "\n");
  EXPECT_EQ(run({"-g", "-u", "-o", "--all"}).out, "No oid has been set for any file.\n");
  EXPECT_EQ(run({"-g", "-u", "-t", file_}).out, file_ + ", tid : 0x0000000c\n");

  // Restore writes what -g -l then shows, with the user-set fields.
  const ToolResult restored = run({"-r", "-l", file_});
  const std::string prefix = file_ + " restore label success, new label: ";
  ASSERT_EQ(restored.out.rfind(prefix, 0), 0u) << restored.out;
  const std::string text = restored.out.substr(prefix.size());
  EXPECT_EQ(run({"-g", "-l", file_}).out, "file: " + file_ + " label: " + text);
  EXPECT_NE(text.find(":12:"), std::string::npos) << text;
  EXPECT_NE(text.find(":5:"), std::string::npos) << text;
  EXPECT_EQ(run({"-i", "-l", file_}).out.rfind(file_ + " init label success, init label: ", 0), 0u);
  EXPECT_EQ(run({"-r", "-l", base_ + "/missing"}).out,
            base_ + "/missing restore label failed...\n");

  EXPECT_EQ(run({"-a", "-p", "vim", "1f"}).out, "set pkgid success. vim\n");
  EXPECT_EQ(run({"-g", "-p", "vim"}).out, "vim pkgid:000000000000001f\n");
  EXPECT_EQ(run({"-g", "-q", "1f"}).out, "pkg name: vim\n");
  EXPECT_EQ(run({"-g", "-u", "-p", "--all"}).out, "vim, pkgid : 0x000000000000001f\n");
  expectResult(run({"-g", "-p", "no-such-package"}), "get pkg id error..\n", 1);
}

TEST_F(OwnLabelMgrE2eTest, ABadNumberWritesNothingAnywhere) {
  const std::vector<std::vector<std::string>> runs = {
      {"-a", "-o", file_, "1", "2", "zz"},
      {"-a", "-p", "vim", "0xg"},
      {"-P", "-a", "-o", base_ + "/files/*", "1", "2", "q"},
  };
  for (const auto& args : runs) {
    const ToolResult r = run(args);
    EXPECT_EQ(r.signal, SIGABRT) << args.back();
    EXPECT_EQ(r.out, "");
  }
  EXPECT_NE(Label().getFromXattr(file_, false), 0) << "a label was written";
  EXPECT_NE(access(stateDir().c_str(), F_OK), 0) << "the state was touched";
}

TEST_F(OwnLabelMgrE2eTest, ListenerReceivesAChangeMadeByAnotherRun) {
  ToolResult listened;
  // A listener never ends by itself: it is stopped after its first line, or
  // at the time limit if nothing comes.
  std::thread listener([&] { listened = runTool({"-S", "-T", "file set-oid"}, {}, 20, "\n"); });
  // Publish once the listener's endpoint exists; a change published before
  // the subscription is not promised to anyone.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline &&
         runShell("ls " + base_ + "/state/listeners/ 2>/dev/null | grep -q .") != 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(run({"-a", "-t", file_, "1"}).status, 0);  // another topic
  EXPECT_EQ(run({"-a", "-o", file_, "1", "2", "3"}).status, 0);
  listener.join();
  EXPECT_EQ(listened.signal, SIGKILL);
  const std::string prefix = "Recviced: file set-oid " + file_ + " 0000000000000001-";
  EXPECT_EQ(listened.out.rfind(prefix, 0), 0u) << listened.out;
  EXPECT_EQ(listened.out.find('\n'), listened.out.size() - 1) << listened.out;
}

}  // namespace
}  // namespace zorv_testing
