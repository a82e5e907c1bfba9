// zorv-label-audit run for real on temporary trees, with its own state
// directory, package database and exclude rules; the tool sets the rules.
#include <sys/mount.h>
#include <sys/xattr.h>

#include <gtest/gtest.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "cli/tool_runner.h"
#include "labelmgr/labelmgr_test_env.h"

namespace zorv_testing {
namespace {

const std::string kZeroId = "0000000000000000-0000000000000000-0000000000000000";

class AuditE2eTest : public LabelMgrTest {
 protected:
  static ToolResult audit(const std::vector<std::string>& args, const std::string& input = "") {
    std::vector<std::string> argv{"zorv-label-audit"};
    argv.insert(argv.end(), args.begin(), args.end());
    return runChild(ZORV_AUDIT_PATH, argv, currentEnvironment(), 30, input);
  }
  // The policy OID text of a canonical path owned by a package with `pkgId`.
  static std::string oidText(const std::string& path, uint64_t pkgId) {
    return policyOid(path, pkgId).toString();
  }

  ScopedEnv excludeDir_{"ZORV_LABELMGR_EXCLUDE_DIR", tmp_ / "exclude.d"};
};

TEST_F(AuditE2eTest, CheckFindsChangedLabelsAndNamesTheRuleBehindEachValue) {
  std::string plain = makeFile("etc/plain.conf");
  std::string shared = makeFile("share/doc/readme");
  ASSERT_EQ(0, runTool({"-a", "-s", root_}).status);
  expectResult(audit({"check", root_}), "", 0);

  // A label changed behind the library's back: one line for the one field.
  Label changed = labelOf(plain);
  changed.tid_ = 9;
  ASSERT_EQ(0, changed.setToXattr(plain, false));
  expectResult(audit({"check", root_}), plain + "\ttid\t00000009\t00000000\tdefault policy\n", 1);
  // A file named alone is compared alone.
  expectResult(audit({"check", plain}), plain + "\ttid\t00000009\t00000000\tdefault policy\n", 1);
  expectResult(audit({"check", shared}), "", 0);

  // User-set values, then the labels lost: each field says where it comes from.
  ASSERT_EQ(0, runTool({"-a", "-t", plain, "c"}).status);
  ASSERT_EQ(0, runTool({"-P", "-a", "-n", root_ + "/share/doc/*", "5"}).status);
  ASSERT_EQ(0, removexattr(plain.c_str(), "security.zorv"));
  ASSERT_EQ(0, removexattr(shared.c_str(), "security.zorv"));
  ToolResult result = audit({"check", "--no-cache", root_});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("", result.err);
  EXPECT_NE(std::string::npos, result.out.find(plain + "\ttid\tnone\t0000000c\texact rule\n"));
  EXPECT_NE(std::string::npos,
            result.out.find(shared + "\tinherit-flag\tnone\t00000005\tpattern rule " + root_ +
                            "/share/doc/*\n"));
  EXPECT_NE(std::string::npos,
            result.out.find(plain + "\toid\tnone\t" + oidText(plain, 0) + "\tdefault policy\n"));

  // JSON Lines, and the summary by package and field.
  result = audit({"check", "--json", root_});
  size_t lines = 0;
  for (size_t begin = 0, end; (end = result.out.find('\n', begin)) != std::string::npos;
       begin = end + 1, ++lines) {
    nlohmann::json line = nlohmann::json::parse(result.out.substr(begin, end - begin));
    EXPECT_TRUE(line["current"].is_null());
    EXPECT_EQ(5u, line.size());  // path, field, current, expected, source
  }
  EXPECT_EQ(8u, lines);
  expectResult(audit({"check", "--summary", root_}),
               "-\tinherit-flag\t2\n-\toid\t2\n-\tsid\t2\n-\ttid\t2\n", 1);

  // Excluded by a rule file (with a malformed line, reported) or an option.
  writeTextFile(tmp_ / "exclude.d/local", "# none of ours\n\n" + plain + "\nrelative/*\n");
  expectResult(audit({"check", "--exclude", root_ + "/share/*", root_}), "", 0,
               "zorv-label-audit: malformed exclude rule: " + base_ +
                   "/exclude.d/local:4: not an absolute path\n");
  ASSERT_EQ(0, runTool({"-a", "-s", root_}).status);  // whole-tree labelling passes it over too
  EXPECT_FALSE(hasLabel(plain));
  EXPECT_TRUE(hasLabel(shared));
}

TEST_F(AuditE2eTest, ExplainSaysWhereEachValueComesFrom) {
  std::string tool = makeFile("bin/alpha-tool", 0755);
  std::string other = makeFile("share/doc/readme");
  ASSERT_EQ(0, runTool({"-P", "-a", "-t", root_ + "/share/doc/*", "1f"}).status);
  ASSERT_EQ(0, runTool({"-r", "-l", tool}).status);
  uint64_t alpha = getSM3HashLast64Bits("alpha");
  std::string oid = oidText(tool, alpha);
  expectResult(audit({"explain", tool}),
               tool +
                   "\n"
                   "  oid:          current " +
                   oid +
                   "\n"
                   "                restore " +
                   oid +
                   "  (package alpha)\n"
                   "  sid:          current " +
                   oid +
                   "\n"
                   "                restore " +
                   oid +
                   "  (package alpha)\n"
                   "  tid:          current 00000000\n"
                   "                restore 00000000  (default policy)\n"
                   "  inherit-flag: current 00000000\n"
                   "                restore 00000000  (default policy)\n");

  ToolResult result = audit({"explain", "--json", "-0"}, other + '\0' + root_ + "/nowhere");
  EXPECT_EQ(2, result.status);
  size_t newline = result.out.find('\n');
  nlohmann::json first = nlohmann::json::parse(result.out.substr(0, newline));
  EXPECT_EQ(other, first["path"]);
  EXPECT_TRUE(first["package"].is_null());
  EXPECT_EQ("tid", first["fields"][2]["field"]);
  EXPECT_EQ("0000001f", first["fields"][2]["current"]);
  EXPECT_EQ("0000001f", first["fields"][2]["expected"]);
  EXPECT_EQ("pattern rule " + root_ + "/share/doc/*", first["fields"][2]["source"]);
  nlohmann::json second = nlohmann::json::parse(result.out.substr(newline + 1));
  EXPECT_NE(std::string::npos, second["error"].get<std::string>().find("nowhere"));
}

TEST_F(AuditE2eTest, AnImageIsJudgedByItsOwnDatabasesWithItsLinksKeptInside) {
  std::string image = base_ + "/image";
  writeTextFile(image + "/usr/lib/libx.so", "x");
  ASSERT_EQ(0, symlink("/usr/lib", (image + "/lib").c_str()));  // absolute: inside the image
  writeTextFile(image + "/var/lib/dpkg/status", "Package: libx\nStatus: install ok installed\n");
  writeTextFile(image + "/var/lib/dpkg/info/libx.list", "/.\n/lib\n/lib/libx.so\n");
  std::string oid = oidText("/usr/lib/libx.so", getSM3HashLast64Bits("libx"));
  ToolResult result = audit({"explain", "--json", "--root", image, "/lib/libx.so"});
  EXPECT_EQ(1, result.status);
  nlohmann::json line = nlohmann::json::parse(result.out);
  EXPECT_EQ("/usr/lib/libx.so", line["path"]);
  EXPECT_EQ("libx", line["package"]);
  EXPECT_EQ(oid, line["fields"][0]["expected"]);
  result = audit({"check", "--root", image, "/usr"});
  EXPECT_EQ(1, result.status);
  EXPECT_NE(std::string::npos,
            result.out.find("/usr/lib/libx.so\toid\tnone\t" + oid + "\tpackage libx\n"));
}

// Every entry under `dir` with its size and modification time, but for the
// database's shared-memory index, which every reader of a writable database
// updates.
std::string inventory(const std::string& dir) {
  std::string listing;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir)) {
    struct stat st;
    if (entry.path().extension() == ".db-shm" || lstat(entry.path().c_str(), &st) != 0) continue;
    listing += entry.path().string() + " " + std::to_string(st.st_size) + " " +
               std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + "\n";
  }
  return listing;
}

// Bind-mounts directories read-only over themselves for the guard's life.
class ReadOnlyBinds {
 public:
  bool add(const std::string& dir) {
    if (mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr) != 0) return false;
    mounted_.push_back(dir);
    return mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
  }
  ~ReadOnlyBinds() {
    for (const std::string& dir : mounted_) umount(dir.c_str());
  }

 private:
  std::vector<std::string> mounted_;
};

TEST_F(AuditE2eTest, NothingIsWrittenOnAReadOnlyTreeAndStateDirectory) {
  std::string file = makeFile("etc/plain.conf");
  ASSERT_EQ(0, runTool({"-a", "-s", root_}).status);
  ASSERT_EQ(0, runTool({"-a", "-t", file, "3"}).status);
  ASSERT_EQ(0, removexattr(file.c_str(), "security.zorv"));
  std::string state = base_ + "/state";
  std::string before = inventory(state);
  ToolResult checked, explained;
  {
    ReadOnlyBinds binds;
    if (!binds.add(root_) || !binds.add(state)) GTEST_SKIP() << "no read-only bind mounts here";
    checked = audit({"check", root_});
    explained = audit({"explain", file});
  }
  EXPECT_EQ(1, checked.status) << checked.err;
  EXPECT_NE(std::string::npos, checked.out.find(file + "\ttid\tnone\t00000003\texact rule\n"));
  EXPECT_EQ(1, explained.status) << explained.err;
  // Nor on a writable one.
  EXPECT_EQ(1, audit({"check", "--no-cache", root_}).status);
  EXPECT_FALSE(hasLabel(file));
  EXPECT_EQ(before, inventory(state));
}

}  // namespace
}  // namespace zorv_testing
