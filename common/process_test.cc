#include "common/process.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "common/process_internal.h"

namespace pi = process_internal;

TEST(ProcessTest, ParsesKernelCmdlineAndStatLines) {
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ((Pairs{{"ro", ""}, {"", ""}, {"opt", "\"a"}, {"b\"", ""}, {"a", "b=c"}}),
            pi::splitKernelCmdline("ro  opt=\"a b\" a=b=c"));
  EXPECT_EQ(77, pi::parentPidFromStat("5 (my own prog) R 77 5 5"));
  EXPECT_EQ(-1, pi::parentPidFromStat("5 (x) S 99999999999 5"));
  // A word closing in ')' inside the name ends it early and shifts the fields.
  EXPECT_EQ(-1, pi::parentPidFromStat("5 (a) b) R 7 9"));
}

TEST(ProcessTest, GetAllParentWalksUpToAChildOfInit) {
  std::vector<int32_t> parents = getAllParent(getpid());
  ASSERT_FALSE(parents.empty());
  EXPECT_EQ(getppid(), parents.front());
  for (size_t i = 0; i + 1 < parents.size(); ++i)
    EXPECT_EQ(parents[i + 1], pi::getParentPid(parents[i]));
  EXPECT_EQ(parents.end(), std::find(parents.begin(), parents.end(), 1));
}
