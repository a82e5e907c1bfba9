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

std::vector<std::string> operands(const CommandOptions& o) {
  return {o.argv + o.operandStart, o.argv + o.argc};
}

CommandOptions parse(Args& args) {
  CommandOptions options;
  EXPECT_FALSE(parseCommandLine(args.argc(), args.argv(), options).has_value());
  return options;
}

TEST(CommandOptionsTest, OperandsBeginAtTheLastOptionsArgument) {
  Args showLabels{"-g", "-l", "a", "b", "c"};
  const CommandOptions show = parse(showLabels);
  EXPECT_EQ(show.action, Action::Get);
  EXPECT_STREQ(show.labelPath, "a");
  EXPECT_EQ(operands(show), (std::vector<std::string>{"a", "b", "c"}));

  // Non-options are moved behind the options, so -P after the values lands at
  // the head of the operands.
  Args trailingFlag{"-a", "-o", "/f", "1", "2", "3", "-P"};
  const CommandOptions set = parse(trailingFlag);
  EXPECT_EQ(operands(set), (std::vector<std::string>{"-P", "1", "2", "3"}));
  EXPECT_EQ(set.patternMatch, 1);

  // A last option without an argument heads the list with its own word.
  Args noArgument{"-d", "-o", "/a", "-R"};
  EXPECT_EQ(operands(parse(noArgument)), (std::vector<std::string>{"-R"}));
}

TEST(CommandOptionsTest, LongAndShortFormsDisagreeAboutArguments) {
  Args shortClear{"-d", "-c", "sid", "oid"};
  const CommandOptions c = parse(shortClear);
  EXPECT_TRUE(c.clear);
  EXPECT_EQ(c.action, Action::Delete);
  EXPECT_EQ(operands(c), (std::vector<std::string>{"sid", "oid"}));

  Args longClear{"-d", "--clear", "sid"};
  EXPECT_EQ(operands(parse(longClear)), (std::vector<std::string>{"--clear", "sid"}));

  Args longDel{"--del", "x", "-o", "/f"};
  const CommandOptions d = parse(longDel);
  EXPECT_EQ(d.action, Action::Delete);
  EXPECT_STREQ(d.oidArg, "/f");

  Args longBatch{"-g", "--batch", "w"};
  const CommandOptions b = parse(longBatch);
  EXPECT_TRUE(b.batch);
  EXPECT_EQ(operands(b), (std::vector<std::string>{"w"}));
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
