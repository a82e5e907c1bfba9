// The tool against our own label manager library, on real files with real
// attributes, with its state and a package database in a temporary directory.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "cli/tool_runner.h"
#include "label/label.h"
#include "testing/own_library_test.h"

namespace zorv_testing {
namespace {

class OwnLabelMgrE2eTest : public OwnLibraryTest {
 protected:
  void SetUp() override { writeTextFile(file_, "x"); }
  const std::string file_ = base_ + "/files/app.conf";
};

TEST_F(OwnLabelMgrE2eTest, SetListRestoreAndShowRecursively) {
  const std::string zero = "0000000000000000-0000000000000000-0000000000000000";
  const std::string label =
      "000000000000001f-0000000000000002-0000000000000003:12:" + zero + ":5:" + zero + "\n";
  expectResult(runTool({"-a", "-o", file_, "1f", "2", "3"}),
               "set file oid success. " + file_ + "\n");
  expectResult(runTool({"-a", "-t", file_, "c"}), "set file tid success. " + file_ + "\n");
  expectResult(runTool({"-a", "-n", file_, "5"}), "set file inherit_flag success. " + file_ + "\n");
  expectResult(runTool({"-g", "-u", "-o", "--all"}),
               file_ + ", oid : 0x000000000000001f-0x0000000000000002-0x0000000000000003\n");
  expectResult(runTool({"-r", "-l", file_}), file_ + " restore label success, new label: " + label);
  expectResult(runTool({"-R", "-g", "-l", base_ + "/files"}),
               "get file label failed, \nfile: " + file_ + " label: " + label);
  const ToolResult scan = runTool({"-a", "-s", base_ + "/files"});
  EXPECT_EQ(scan.status, 0);
  EXPECT_TRUE(
      std::regex_match(scan.out, std::regex("set the label for files begin, please wait...\n"
                                            "set the label for files end, cost time = "
                                            "[0-9]+\\.[0-9]{4} seconds\n")))
      << scan.out;
  EXPECT_EQ(Label().getFromXattr(base_ + "/files", false), 0) << "the directory is labelled";
}

TEST_F(OwnLabelMgrE2eTest, NoDereferenceShowsAndRemovesTheLinksOwnLabel) {
  const std::string link = base_ + "/files/link";
  ASSERT_EQ(symlink(file_.c_str(), link.c_str()), 0);
  Label own;
  own.oid_.pkg_ = 9;
  ASSERT_EQ(own.setToXattr(link, true), 0);
  expectResult(runTool({"-H", "-g", "-l", link}),
               "file: " + link + " label: " + own.toString() + "\n");
  expectResult(runTool({"-g", "-l", link}), "get file label failed, \n");  // the target has none
  expectResult(runTool({"-H", "-d", "-l", link}), "================================\n");
  EXPECT_NE(Label().getFromXattr(link, true), 0);
}

TEST_F(OwnLabelMgrE2eTest, ABadNumberAbortsAndWritesNothingAnywhere) {
  // The tool's own line, then what the C++ runtime prints as it aborts.
  const std::string thrown = "stoull\nterminate called after throwing an instance of 'std::";
  const std::pair<std::vector<std::string>, std::string> runs[] = {
      {{"-a", "-o", file_, "1", "2", "zz"},
       "Invalid argument: " + thrown + "invalid_argument'\n  what():  stoull\n"},
      {{"-a", "-p", "vim", "10000000000000000"},
       "Out of Range error: " + thrown + "out_of_range'\n  what():  stoull\n"},
  };
  for (const auto& [args, err] : runs) {
    const ToolResult r = runTool(args);
    EXPECT_EQ(r.signal, SIGABRT) << args.back();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, err);
  }
  EXPECT_NE(Label().getFromXattr(file_, false), 0) << "a label was written";
  EXPECT_NE(access(stateDir().c_str(), F_OK), 0) << "the state was touched";
}

// Run as uid 65534 with copies of the tool and the test double in the
// temporary tree, which that user can reach whatever the build tree allows.
TEST_F(OwnLabelMgrE2eTest, AnUnreadableDirectoryIsReportedAndSkipped) {
  writeTextFile(base_ + "/t/locked/hidden", "");
  ASSERT_EQ(chmod(base_.c_str(), 0777), 0);  // the run logs here
  ASSERT_EQ(chmod((base_ + "/t").c_str(), 0755), 0);
  ASSERT_EQ(chmod((base_ + "/t/locked").c_str(), 0700), 0);
  writeTextFile(base_ + "/log.properties",
                "log4cpp.rootCategory=DEBUG, F\nlog4cpp.appender.F=FileAppender\n"
                "log4cpp.appender.F.fileName=tool.log\nlog4cpp.appender.F.layout=SimpleLayout\n");
  const std::string fake = fakeLabelManagerDir(),
                    tool = fake.substr(0, fake.rfind('/')) + "/zorv-label-manager-tool";
  const std::string run =
      "cd '" + base_ + "' && cp -a '" + fake + "' '" + tool +
      "' . && setpriv --reuid=65534 --regid=65534 --clear-groups env -i LD_LIBRARY_PATH=fake "
      "ZORV_LABEL_LOG_PROPERTIES=log.properties ./zorv-label-manager-tool -R -g -l t >out 2>err";
  EXPECT_EQ(system(run.c_str()), 0);
  EXPECT_EQ(readTextFile(base_ + "/out"),
            "get file label failed, \nt/locked opendir error: Permission denied\n");
  EXPECT_EQ(readTextFile(base_ + "/err"), "");
}

}  // namespace
}  // namespace zorv_testing
