#include "cli/usage.h"

#include "cli/output.h"

namespace zorv::cli {
namespace {

// Headings and notes are coloured for a terminal: green 1;32, yellow 1;33.
const char* const kUsageLines[] = {
    "",
    "===========================================================================================",
    "option:",
    "-a --add             add label/oid/sid",
    "-g --get             get label/oid/sid",
    "-d --del             del label/oid/sid",
    "-r --restore         resote label",
    "-i --init            initialize label",
    "",
    "arg:",
    "-s --scan /          scan disk from / ",
    "-v --id              sid/oid value",
    "-u --user-set        query the oid/sid/tid/inherit_flag set by a user",
    "-o --oid             get/set/del/clear oid for file/dir",
    "-m --sid             get/set/del/clear sid for file/dir",
    "-t --tid             get/set/del/clear tid for file/dir",
    "-n --inherit-flag    get/set/del/clear inherit-flag for file/dir",
    "-p --pkg-id          get/set/del/clear oid/sid for pkg",
    "-q --pkg-name       get pkg id by pkg name",
    "-k --module          get oid for kernel module",
    "-e --device          get oid for device",
    "-l --label           show the file label",
    "-c --clear           clear all oid/sid",
    "-b --batch           batch get sid and oid",
    "-P --pattern-match   file path usage pattern matching",
    "-R --recursive       show dir label recursively, use with parameter 'l'",
    "-H --no-dereference  do not dereference symbolic links",
    "-L --dir-label       show the recursion dir label(abandon, use -R -l instead), ",
    "-S --subscribe       subscribe to file label change message.",
    "-T --topic           subscribe to message topic.",
    "-3 --sm3             get path sm3 hash value",
    "Command usage example:\n",
    "\033[1;32m==========================软件包id设置查询等命令用法和示例=========================="
    "=============\033[0m",
    "\t1)获取pkgid : zorv-label-manager-tool -g -p 软件包名称",
    "\t2)设置pkgid : zorv-label-manager-tool -a -p 软件包名称 pkg_id",
    "\t3)删除已设置的pkgid : zorv-label-manager-tool -d -p 软件包名称",
    "\t4)清空已设置的pkgid : zorv-label-manager-tool -d -c pkg_id",
    "\t5)查询已设置的pkgid : zorv-label-manager-tool -g -u -p 软件包名称",
    "\t6)列出所有pkgid : zorv-label-manager-tool -g -u -p --all",
    "\033[1;32m==========================标记设置命令用法和示例===================================="
    "=============\033[0m",
    "对文件标记各个字段设置指定值：",
    "\t1)设置oid : zorv-label-manager-tool -a -o 文件完整路径 pkg_id file_id path_id",
    "\t2)设置sid : zorv-label-manager-tool -a -m 文件完整路径 pkg_id file_id path_id",
    "\t3)设置tid : zorv-label-manager-tool -a -t 文件完整路径 tid",
    "\t4)设置inherit_flag : zorv-label-manager-tool -a -n 文件完整路径 inherit_flag",
    "删除对文件标记各个字段设置的指定值：",
    "\t1)删除oid : zorv-label-manager-tool -d -o 文件完整路径",
    "\t2)删除sid : zorv-label-manager-tool -d -m 文件完整路径",
    "\t3)删除tid : zorv-label-manager-tool -d -t 文件完整路径",
    "\t4)删除inherit_flag : zorv-label-manager-tool -d -n 文件完整路径",
    "清空对文件标记各个字段设置的指定值：",
    "\t1)清空pkgid/oid/sid/tid/inherit_flag : zorv-label-manager-tool -d -c "
    "sid/oid/tid/inherit_flag/pkgid",
    "查询对文件标记各个字段设置的指定值：",
    "\033[1;33m说明：当要查询指定文件标记相应字段的值时需要给出文件完整绝对路径,"
    "当要查看所以文件相应字段的值时将文件完整绝对路径替换为--all即可\033[0m",
    "\t1)查询oid : zorv-label-manager-tool -g -u -o 文件完整路径",
    "\t2)查询sid : zorv-label-manager-tool -g -u -m 文件完整路径",
    "\t3)查询tid : zorv-label-manager-tool -g -u -t 文件完整路径",
    "\t4)查询inherit_flag : zorv-label-manager-tool -g -u -n 文件完整路径",
    "\033[1;33m说明, 以上命令中文件路径支持模式匹配, 使用模式匹配时需要加上参数 -P, "
    "文件路径需要加上双引号.\033[0m",
    "\t1)设置oid(路径中有通配符) : zorv-label-manager-tool -P -a -o \"有通配符路路径\" pkg_id "
    "file_id path_id",
    "\033[1;32m==========================标记查看删除等命令用法和示例=============================="
    "===================\033[0m",
    "\t1)查看文件/目录标记 :          zorv-label-manager-tool -g -l 文件完整路径",
    "\t2)递归查看目录下所有文件标记 :  zorv-label-manager-tool -R -g -l 文件完整路径",
    "\t1)删除文件/目录标记 :          zorv-label-manager-tool -d -l 文件完整路径",
    "\t2)递归删除目录下所有文件标记 :  zorv-label-manager-tool -R -d -l 文件完整路径",
};

}  // namespace

void printUsage() {
  for (const char* line : kUsageLines) printLine(line);
}

}  // namespace zorv::cli
