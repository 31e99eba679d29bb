// The command's --verify-level: a level from 0 to 9, nothing else.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/options.h"

namespace {

bool parse(std::vector<const char*> args, hxcli::SolveOptions* o, std::string* error) {
  args.insert(args.begin(), {"halvex", "solve", "f.mps"});
  return hxcli::parseSolveArgs((int)args.size(), args.data(), 2, o, error);
}

TEST(VerifyCli, LevelIsParsedAndBoundsAreEnforced) {
  hxcli::SolveOptions unset;
  std::string error;
  ASSERT_TRUE(parse({}, &unset, &error)) << error;
  EXPECT_EQ(unset.verifyLevel, -1);  // not given: the LP entry's default stands
  for (const char* ok : {"0", "5", "9"}) {
    hxcli::SolveOptions o;
    ASSERT_TRUE(parse({"--verify-level", ok}, &o, &error)) << error;
    EXPECT_EQ(o.verifyLevel, std::stoi(ok));
  }
  hxcli::SolveOptions eq;
  ASSERT_TRUE(parse({"--verify-level=7"}, &eq, &error)) << error;
  EXPECT_EQ(eq.verifyLevel, 7);
  for (const char* bad : {"-1", "10", "x", ""}) {
    hxcli::SolveOptions o;
    error.clear();
    EXPECT_FALSE(parse({"--verify-level", bad}, &o, &error)) << bad;
    EXPECT_NE(error.find("--verify-level"), std::string::npos) << error;
  }
}

}  // namespace
