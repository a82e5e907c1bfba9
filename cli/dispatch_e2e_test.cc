// The tool against a scripted double of the label manager library: what each
// command family passes to the library, prints and exits with.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "cli/tool_runner.h"

namespace zorv_testing {
namespace {

TEST(DispatchE2eTest, UsageIsPrintedWholeAndEndsTheRun) {
  // Written independently of the tool's table: {T} tab, {G}/{Y}/{R} colours,
  // {C} the command, {P} the path placeholder. Two option lines end in a space.
  std::string text = R"(
===========================================================================================
option:
-a --add             add label/oid/sid
-g --get             get label/oid/sid
-d --del             del label/oid/sid
-r --restore         resote label
-i --init            initialize label

arg:
-s --scan /          scan disk from / 
-v --id              sid/oid value
-u --user-set        query the oid/sid/tid/inherit_flag set by a user
-o --oid             get/set/del/clear oid for file/dir
-m --sid             get/set/del/clear sid for file/dir
-t --tid             get/set/del/clear tid for file/dir
-n --inherit-flag    get/set/del/clear inherit-flag for file/dir
-p --pkg-id          get/set/del/clear oid/sid for pkg
-q --pkg-name       get pkg id by pkg name
-k --module          get oid for kernel module
-e --device          get oid for device
-l --label           show the file label
-c --clear           clear all oid/sid
-b --batch           batch get sid and oid
-P --pattern-match   file path usage pattern matching
-R --recursive       show dir label recursively, use with parameter 'l'
-H --no-dereference  do not dereference symbolic links
-L --dir-label       show the recursion dir label(abandon, use -R -l instead), 
-S --subscribe       subscribe to file label change message.
-T --topic           subscribe to message topic.
-3 --sm3             get path sm3 hash value
Command usage example:

{G}==========================软件包id设置查询等命令用法和示例======================================={R}
{T}1)获取pkgid : {C} -g -p 软件包名称
{T}2)设置pkgid : {C} -a -p 软件包名称 pkg_id
{T}3)删除已设置的pkgid : {C} -d -p 软件包名称
{T}4)清空已设置的pkgid : {C} -d -c pkg_id
{T}5)查询已设置的pkgid : {C} -g -u -p 软件包名称
{T}6)列出所有pkgid : {C} -g -u -p --all
{G}==========================标记设置命令用法和示例================================================={R}
对文件标记各个字段设置指定值：
{T}1)设置oid : {C} -a -o {P} pkg_id file_id path_id
{T}2)设置sid : {C} -a -m {P} pkg_id file_id path_id
{T}3)设置tid : {C} -a -t {P} tid
{T}4)设置inherit_flag : {C} -a -n {P} inherit_flag
删除对文件标记各个字段设置的指定值：
{T}1)删除oid : {C} -d -o {P}
{T}2)删除sid : {C} -d -m {P}
{T}3)删除tid : {C} -d -t {P}
{T}4)删除inherit_flag : {C} -d -n {P}
清空对文件标记各个字段设置的指定值：
{T}1)清空pkgid/oid/sid/tid/inherit_flag : {C} -d -c sid/oid/tid/inherit_flag/pkgid
查询对文件标记各个字段设置的指定值：
{Y}说明：当要查询指定文件标记相应字段的值时需要给出文件完整绝对路径,当要查看所以文件相应字段的值时将文件完整绝对路径替换为--all即可{R}
{T}1)查询oid : {C} -g -u -o {P}
{T}2)查询sid : {C} -g -u -m {P}
{T}3)查询tid : {C} -g -u -t {P}
{T}4)查询inherit_flag : {C} -g -u -n {P}
{Y}说明, 以上命令中文件路径支持模式匹配, 使用模式匹配时需要加上参数 -P, 文件路径需要加上双引号.{R}
{T}1)设置oid(路径中有通配符) : {C} -P -a -o "有通配符路路径" pkg_id file_id path_id
{G}==========================标记查看删除等命令用法和示例================================================={R}
{T}1)查看文件/目录标记 :          {C} -g -l {P}
{T}2)递归查看目录下所有文件标记 :  {C} -R -g -l {P}
{T}1)删除文件/目录标记 :          {C} -d -l {P}
{T}2)递归删除目录下所有文件标记 :  {C} -R -d -l {P}
)";
  const char* const marks[] = {
      "{T}",        "\t",          "{G}",     "\x1b[1;32m", "{Y}",
      "\x1b[1;33m", "{R}",         "\x1b[0m", "{C}",        "zorv-label-manager-tool",
      "{P}",        "文件完整路径"};
  for (size_t i = 0; i < std::size(marks); i += 2)
    for (size_t at; (at = text.find(marks[i])) != std::string::npos;)
      text.replace(at, 3, marks[i + 1]);
  ASSERT_EQ(std::count(text.begin(), text.end(), '\n'), 66);
  FakeLabelManager fake;
  fake.expect({}, text);
  // Options before -h are read and dropped; those after it are never read.
  fake.expect({"-g", "-o", "/f", "-h", "-x"}, text);
  EXPECT_TRUE(fake.calls().empty());
}

TEST(DispatchE2eTest, OptionErrorsAndSoftEndings) {
  FakeLabelManager fake;
  fake.script("setFileTid ret=1\nsetPkgId ret=-1\n");
  // The long form of -d wants an argument the short form does not take.
  fake.expect({"--del"}, "", 1, "zorv-label-manager-tool: option '--del' requires an argument\n");
  fake.expect({"-g"}, "arg error, please check the usage help\n", 1);
  fake.expect({"-a", "-o", "/f", "1", "2"}, "set file oid error, parameter error.\n", 1);
  // These end with 0 although nothing was done or the library failed.
  fake.expect({"-g", "-f", "x"}, "");
  fake.expect({"-a", "-t", "/f", "1f"}, "set file tid error. /f\n");
  fake.expect({"-a", "-p", "vim", "abc"}, "set pkgid error. vim\n");
}

// getopt moves non-options behind the options; the operands begin at the last
// option's argument (or at its own word when it takes none), and set commands
// take their values from the end of the line.
TEST(DispatchE2eTest, OperandsBeginAtTheLastOptionsArgument) {
  FakeLabelManager fake;
  const std::tuple<std::vector<std::string>, std::string, std::string> cases[] = {
      {{"-a", "-o", "/f", "1", "2", "ffffffffffffffff", "-P"},
       "set file oid success. -P\n",
       "setFileOid(\"-P\", 1, {0x1, 0x2, 0xffffffffffffffff})"},
      {{"-d", "-o", "/a", "-R"},
       std::string(32, '=') + "\n-R\ndelete file oid success. -R\n",
       "delFileOid(\"-R\", 0)"},
      {{"-P", "-g", "-u", "-o", "/d/*"},
       "No oid has been set for any file.\n",
       "queryUserSetFileOid(\"/d/*\", 1)"},
  };
  for (const auto& [args, out, call] : cases) {
    fake.script("");
    fake.expect(args, out);
    EXPECT_EQ(fake.calls(), call + "\n");
  }
}

// One run per command family: the words and numbers it prints, its exit status.
TEST(DispatchE2eTest, EachCommandFamilyPrintsItsOwnTexts) {
  struct Case {
    std::string script;
    std::vector<std::string> args;
    std::string out;
    int status;
  };
  const Case cases[] = {
      // The get chain runs in a fixed order, whatever the order on the line.
      {"getPkgId value=1f\ngetFileOid id=1,2,3\ngetFileSid id=a,0,ffffffffffffffff\n"
       "getFileTid value=12\ngetFileInheritFlag value=5\n",
       {"-g", "-n", "/n", "-t", "/t", "-m", "/m", "-o", "/o", "-p", "vim"},
       "vim pkgid:000000000000001f\n/o oid:0000000000000001-0000000000000002-0000000000000003\n"
       "/m sid:000000000000000a-0000000000000000-ffffffffffffffff\n/t tid:00000012\n"
       "/n inheritFlag:00000005\n",
       0},
      {"getFileOid ret=-1\n", {"-g", "-o", "/o", "-m", "/m"}, "get file oid error..\n", 1},
      {"clearFileTid ret=1\n",
       {"-d", "-c", "sid", "oid", "tid", "inherit_flag", "pkgid"},
       std::string(32, '=') +
           "\nclear file sid success.\nclear file oid success.\nclear file tid error.\n"
           "clear file inherit_flag success.\nclear pkg id success.\n",
       0},
      {"showUserSetFileTid rec=/t|123456789 rec=/u|7\n",
       {"-g", "-u", "-t", "--all"},
       "/t, tid : 0x123456789\n/u, tid : 0x00000007\n",
       0},
      {"queryUserSetFileSid ret=-3\n",
       {"-g", "-u", "-m", "/f"},
       "query user set sid failed, count = -3\n",
       0},
      {"restoreSingleFileLabel @/f text=LABEL-A\n",
       {"-r", "-l", "/f"},
       "/f restore label success, new label: LABEL-A\n",
       0},
      {"", {"-i", "-l", "/g"}, "/g init label failed...\n", 1},
      {"", {"-r"}, "The parameter is incorrect, the file path is empty...\n", 1},
      {"getKernelModuleOid @ext4 value=abc\ngetDeviceOid value=ffffffffffffffff\n",
       {"-g", "-k", "ext4", "-e", "/dev/sda"},
       "module Oid:0000000000000abc\ndevice Oid:ffffffffffffffff\n",
       0},
      {"getPkgNameById null\n", {"-g", "-q", "0x1f"}, "get pkg name by id error\n", 1},
      {"", {"--sm3", "abc", "-g", "-o", "/f"}, "SM3 Hash (last 64 bits): 297da02b8f4ba8e0\n", 0},
      {"subscribeLabelChangeMsg ret=-1\n",
       {"--subscribe"},
       "subscribe file label change message error.\n",
       1},
  };
  FakeLabelManager fake;
  for (const Case& c : cases) {
    fake.script(c.script);
    fake.expect(c.args, c.out, c.status);
  }
}

TEST(LookupE2eTest, SelfTestLeavesTheStreamHexadecimalAndListenerEndsOnAFailedReceive) {
  FakeLabelManager fake;
  fake.script("policies_parse entry=subject_pkg|vim|1f,2,3\ngetLabelSetStatus ret=26\n");
  fake.expect({"-g", "-b"},
              "policies_parse test begin\nsubject_pkg:vim 000000000000001f\n"
              "policies_parse test end\nLabelSetStatus: 1a\n");
  fake.script(
      "recvLabelChangeMsg text=file set-oid /f 1\nrecvLabelChangeMsg null\nrecvLabelChangeMsg "
      "ret=1\n");
  fake.expect({"-S", "-T", "file set"},
              "Recviced: file set-oid /f 1\nRecviced: \nrecvice file label change message error.\n",
              1);
  EXPECT_EQ(fake.calls(),
            "createSubscriber()\nsubscribeLabelChangeMsg(\"file set\")\nrecvLabelChangeMsg()\n"
            "recvLabelChangeMsg()\nrecvLabelChangeMsg()\n");
}

}  // namespace
}  // namespace zorv_testing
