#include "common/config.h"

#include <map>
#include <string>
#include <unordered_map>

#include <gtest/gtest.h>

#include "testing/test_util.h"

using zorv_testing::ScopedTempDir;
using zorv_testing::writeTextFile;

namespace {

using Section = std::unordered_map<std::string, std::string>;

// One file read by both readers, which disagree on purpose about comments,
// blanks, keys outside sections and repeated keys.
const char kCrlfConfig[] =
    "top=1\r\n"
    "; note=1\r\n"
    "[s]\r\n"
    "k = v 1\r\n"
    "; note=2\r\n"
    "dup=1\r\n"
    "dup=2\r\n"
    "  port = 80\r\n"
    "eq=a=b\r\n"
    "[broken\r\n"
    "\tkeytab=\tx\ty\r\n"
    "[s] trailing=t\r\n"
    "[ net ]\r\n"
    " = empty key\r\n"
    "[]\r\n"
    "after=reset\r\n"
    "[s]\r\n"
    "dup=3\r\n";

}  // namespace

TEST(ConfigTest, SameCrlfFileReadByBothRuleSets) {
  ScopedTempDir dir;
  writeTextFile(dir / "c.ini", kCrlfConfig);

  std::unordered_map<std::string, Section> sections{
      {"s",
       {{"k", "v 1"},
        {"; note", "2"},
        {"dup", "1"},
        {"port", "80"},
        {"eq", "a=b"},
        {"keytab", "x\ty"},
        {"[s] trailing", "t"}}},
      {" net ", {{"", "empty key"}}},
      {"", {}},
  };
  EXPECT_EQ(sections, parseConfig(dir / "c.ini"));

  std::map<std::string, std::string> flat{
      {"top", "1"},    {"s.k ", "v1"},       {"s.dup", "3"},         {"s.port ", "80"},
      {"s.eq", "a=b"}, {"s.keytab", "x\ty"}, {" net .", "emptykey"}, {"after", "reset"},
  };
  EXPECT_EQ(flat, readConfig(dir / "c.ini"));
}
