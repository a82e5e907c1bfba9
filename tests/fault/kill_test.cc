// The tool killed with SIGKILL at random moments of long runs over 10,000
// files. Whatever it wrote by then must be whole labels, the state database
// must stay sound and must not claim work that was not done, and running the
// command again must finish the job.
//
// The seed of the random delays is printed; ZORV_FAULT_SEED repeats a run.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "cli/tool_runner.h"
#include "common/sm3.h"
#include "tests/fault/fault_util.h"

namespace zorv_fault {
namespace {

using std::chrono::milliseconds;
using zorv_testing::runTool;
using zorv_testing::ToolResult;

constexpr int kFiles = 10000;
constexpr int kRounds = 6;

std::string hex(uint64_t value) {
  char text[17];
  std::snprintf(text, sizeof text, "%" PRIx64, value);
  return text;
}

// `count` empty files in `dir`; every seventh is executable, which gives it a
// SID as well as an OID.
std::vector<std::string> makeFiles(const std::string& dir, int count) {
  std::vector<std::string> files;
  for (int i = 0; i < count; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "/f%05d", i);
    files.push_back(dir + name);
    zorv_testing::writeTextFile(files.back(), "");
    if (i % 7 == 0) chmod(files.back().c_str(), 0755);
  }
  return files;
}

class KillTest : public zorv_testing::OwnLibraryTest {
 protected:
  void SetUp() override {
    const char* seed = getenv("ZORV_FAULT_SEED");
    seed_ = seed != nullptr ? std::strtoul(seed, nullptr, 10) : std::random_device()();
    random_.seed(seed_);
    std::printf("ZORV_FAULT_SEED=%lu\n", seed_);
    RecordProperty("seed", std::to_string(seed_));
  }

  // One complete run, then kRounds runs killed at random moments within the
  // time the complete one took. Before each run `argsOf(round)` sets the scene
  // and answers the arguments (round -1 is the complete run); after it the
  // database must be sound and `check` (which may fail fatally) judges the
  // files and describes them in its summary.
  void killRounds(const char* what, const std::function<std::vector<std::string>(int)>& argsOf,
                  const std::function<void(int round, std::string* summary)>& check) {
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(runTool(argsOf(-1), {}, 300).status, 0) << "the uninterrupted " << what;
    const auto span =
        std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
    std::string summary;
    check(-1, &summary);
    if (HasFatalFailure()) return;
    int killed = 0;
    for (int round = 0; round < kRounds; ++round) {
      const milliseconds delay(std::uniform_int_distribution<long>(0, span.count())(random_));
      const ToolResult run = runTool(argsOf(round), {}, delay.count() / 1000.0);
      SCOPED_TRACE("round " + std::to_string(round) + ", killed after " +
                   std::to_string(delay.count()) + " ms of " + std::to_string(span.count()));
      const bool wasKilled = run.signal == SIGKILL;
      killed += wasKilled;
      ASSERT_TRUE(wasKilled || run.status == 0) << "exit status " << run.status;
      ASSERT_EQ(integrityCheck(database()), "ok");
      check(round, &summary);
      if (HasFatalFailure()) return;
      std::printf("round %d: %s after %lld ms; %s\n", round, wasKilled ? "killed" : "finished",
                  static_cast<long long>(delay.count()), summary.c_str());
    }
    EXPECT_GT(killed, 0) << "every run ended before its kill: nothing was tested";
    std::printf("%d of %d %s runs killed; a full run takes %lld ms\n", killed, kRounds, what,
                static_cast<long long>(span.count()));
  }

  // The OID value that users set on `pattern`, 0 when none is recorded.
  static uint64_t recordedOid(const std::string& pattern) {
    const ToolResult r = runTool({"-g", "-u", "-o", "--all"});
    EXPECT_EQ(r.status, 0) << r.out;
    const std::string prefix = pattern + ", oid : 0x";
    for (const std::string& line : zorv_testing::splitLines(r.out)) {
      if (line.compare(0, prefix.size(), prefix) == 0)
        return std::strtoull(line.c_str() + prefix.size(), nullptr, 16);
    }
    return 0;
  }

  unsigned long seed_ = 0;
  std::mt19937_64 random_;
};

// A pattern set writes every file's label inside the transaction that records
// the rule, so a kill leaves each file with its old or its new label and the
// rule as it was; a rule that did commit means every label was written.
TEST_F(KillTest, PatternSetKilledMidwayLeavesWholeLabelsAndARerunFinishes) {
  const std::string dir = base_ + "/tree/dir";
  const std::vector<std::string> files = makeFiles(dir, kFiles);
  const std::string pattern = dir + "/*";
  auto setOid = [&](uint64_t pkg) {
    return std::vector<std::string>{"-P", "-a", "-o", pattern, hex(pkg), "2", "3"};
  };
  // Every run sets a value of its own.
  auto valueOf = [](int round) -> uint64_t { return round < 0 ? 1 : 0x100 + round; };
  std::set<uint64_t> issued;
  uint64_t recorded = 1;
  auto argsOf = [&](int round) {
    issued.insert(valueOf(round));
    return setOid(valueOf(round));
  };
  killRounds("pattern set", argsOf, [&](int round, std::string* summary) {
    const uint64_t value = valueOf(round);
    const uint64_t rule = recordedOid(pattern);
    ASSERT_TRUE(rule == recorded || rule == value) << "recorded OID package " << hex(rule);
    size_t carrying = 0;
    for (const std::string& file : files) {
      Label label;
      ASSERT_EQ(readLabel(file, &label), LabelState::kPresent) << file;
      ASSERT_EQ(issued.count(label.oid_.pkg_), 1u) << file << ": " << label.toString();
      ASSERT_EQ(label.oid_.file_, 2u) << file;
      ASSERT_EQ(label.oid_.path_, 3u) << file;
      if (label.oid_.pkg_ == value) ++carrying;
    }
    if (rule == value) {
      EXPECT_EQ(carrying, files.size()) << "the rule committed before its labels";
    }
    *summary = std::to_string(carrying) + " of " + std::to_string(files.size()) +
               " files relabelled, rule " + (rule == value ? "committed" : "unchanged");
    recorded = rule;
    // The tool's own reading path agrees that every value decodes.
    const ToolResult shown = runTool({"-g", "-l", pattern}, {}, 120);
    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(shown.out.find("get file label failed"), std::string::npos);
  });
  if (HasFatalFailure()) return;

  zorv_testing::expectResult(runTool(setOid(0x200), {}, 300),
                             "set file oid success. " + pattern + "\n");
  EXPECT_EQ(recordedOid(pattern), 0x200u);
  for (const std::string& file : files) {
    Label label;
    ASSERT_EQ(readLabel(file, &label), LabelState::kPresent) << file;
    ASSERT_EQ(label.oid_.pkg_, 0x200u) << file;
  }
  EXPECT_EQ(integrityCheck(database()), "ok");
}

// The label whole-tree labelling gives an entry no package owns: OID from the
// digests of its name and path, the SID equal to it for executable files.
Label policyLabel(const std::string& path) {
  Label label;
  label.oid_.file_ = getSM3HashLast64Bits(path.substr(path.rfind('/') + 1));
  label.oid_.path_ = getSM3HashLast64Bits(path);
  struct stat st;
  if (lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 0111) != 0)
    label.sid_ = label.oid_;
  return label;
}

// Whole-tree labelling writes each label in one call and keeps no state
// until the end, so a kill leaves entries either unlabelled or with their
// final label, and the next run (which may trust a cache of what the last
// complete run verified) labels the rest.
TEST_F(KillTest, TreeLabellingKilledMidwayLeavesWholeLabelsAndARerunFinishes) {
  const std::string root = base_ + "/tree";
  for (int d = 0; d < 20; ++d) makeFiles(root + "/d" + std::to_string(10 + d), kFiles / 20);
  const std::vector<std::string> entries = listTree(root);
  std::vector<std::string> expected;
  for (const std::string& entry : entries) expected.push_back(policyLabel(entry).toString());
  const std::vector<std::string> labelTree{"-a", "-s", root};
  // After a complete run every entry has its label, after a killed one some.
  auto checkLabels = [&](bool complete, std::string* summary) {
    size_t labelled = 0;
    for (size_t i = 0; i < entries.size(); ++i) {
      Label label;
      const LabelState state = readLabel(entries[i], &label);
      ASSERT_TRUE(state == LabelState::kPresent || (!complete && state == LabelState::kAbsent))
          << entries[i] << " in state " << static_cast<int>(state);
      if (state == LabelState::kPresent) {
        ASSERT_EQ(label.toString(), expected[i]) << entries[i];
        ++labelled;
      }
    }
    *summary =
        std::to_string(labelled) + " of " + std::to_string(entries.size()) + " entries labelled";
  };

  killRounds(
      "tree labelling",
      [&](int round) {
        // Every other round starts from a tree without labels; the others go
        // on from what the killed run before them left.
        if (round >= 0 && round % 2 == 0) {
          for (const std::string& entry : entries) lremovexattr(entry.c_str(), "security.zorv");
        }
        return labelTree;
      },
      [&](int round, std::string* summary) { checkLabels(round < 0, summary); });
  if (HasFatalFailure()) return;

  const ToolResult rerun = runTool(labelTree, {}, 300);
  EXPECT_EQ(rerun.status, 0);
  EXPECT_EQ(rerun.out.rfind("set the label for files begin, please wait...\n"
                            "set the label for files end, cost time = ",
                            0),
            0u)
      << rerun.out;
  std::string summary;
  checkLabels(true, &summary);
  EXPECT_EQ(integrityCheck(database()), "ok");
}

}  // namespace
}  // namespace zorv_fault
