// What the parse records beyond what a run shows; the end-to-end tests check
// operands and actions through the tool's output.
#include "cli/command_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/label_walker.h"

namespace zorv::cli {
namespace {

// A mutable argument vector, as getopt_long permutes it.
class Args {
 public:
  Args(std::initializer_list<const char*> words) : texts_{"zorv-label-manager-tool"} {
    texts_.insert(texts_.end(), words.begin(), words.end());
    for (std::string& t : texts_) pointers_.push_back(t.data());
    pointers_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(texts_.size()); }
  char** argv() { return pointers_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

CommandOptions parse(Args& args) {
  CommandOptions options;
  EXPECT_FALSE(parseCommandLine(args.argc(), args.argv(), options).has_value());
  return options;
}

TEST(CommandOptionsTest, FlagsAndSelectors) {
  Args args{"-a", "-g", "-v", "7", "-L", "/d", "-H", "-u", "-T", "t", "-f", "c"};
  const CommandOptions o = parse(args);
  EXPECT_EQ(o.action, Action::Get);  // the last action option wins
  EXPECT_TRUE(o.labelMode);
  EXPECT_TRUE(o.recursive);
  EXPECT_EQ(o.labelPath, nullptr);  // -L's argument is not a label path
  EXPECT_TRUE(o.userSet);
  EXPECT_STREQ(o.topic, "t");
  EXPECT_STREQ(o.creatorOidArg, "c");
  EXPECT_TRUE(noDereference);

  // A later parse starts from a clean record and flag.
  Args plain{"-S"};
  const CommandOptions p = parse(plain);
  EXPECT_EQ(p.action, Action::Subscribe);
  EXPECT_FALSE(p.labelMode);
  EXPECT_FALSE(noDereference);
}

}  // namespace
}  // namespace zorv::cli
