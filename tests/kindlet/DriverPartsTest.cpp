#include <climits>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "KINDLET/src/Arguments.h"
#include "KINDLET/src/OpTreeFiles.h"
#include "base/FrameList.h"
#include "KindletTestSupport.h"

namespace {

OptionMap parse(std::vector<std::string> tokens, int* result = nullptr) {
  std::vector<char*> argv;
  for (std::string& token : tokens) argv.push_back(&token[0]);
  argv.push_back(nullptr);
  OptionMap options;
  int code = parseArguments(static_cast<int>(tokens.size()), argv.data(), options);
  if (result != nullptr) *result = code;
  return options;
}

// Pairs after the program name (itself an ordinary token), values taken as
// they stand, the last of a name winning; tokens without a dash are skipped
// and a trailing name is dropped. Fewer than three tokens store nothing.
TEST(ParseArguments, PairsValuesAndSkippedTokens) {
  struct Case {
    std::vector<std::string> tokens;
    int result;
    OptionMap options;
  };
  const Case cases[] = {
      {{"kindlet", "-a"}, -1, {}},
      {{"kindlet", "x", "y", "-a", "1", "-b"}, 0, {{"a", "1"}}},
      {{"kindlet", "-a", "-b", "-c", "1", "-t", "-5", "-c", "2", "-threads=4", "x", "--threads",
        "4", "-e", ""},
       0,
       {{"a", "-b"}, {"c", "2"}, {"t", "-5"}, {"threads=4", "x"}, {"-threads", "4"}, {"e", ""}}},
      {{"-prog", "v", "w"}, 0, {{"prog", "v"}}},
  };
  for (const Case& c : cases) {
    int result = 99;
    EXPECT_EQ(parse(c.tokens, &result), c.options) << c.tokens.size();
    EXPECT_EQ(result, c.result) << c.tokens.size();
  }
}

TEST(ParseFrameList, RangesSinglesAndDroppedTokens) {
  using V = std::vector<int>;
  EXPECT_EQ(parseFrameList("1-3"), (V{1, 2, 3}));
  EXPECT_EQ(parseFrameList("3,1,3"), (V{3, 1, 3}));
  EXPECT_EQ(parseFrameList("5-1"), V{});
  EXPECT_EQ(parseFrameList("-5"), V{-5});
  EXPECT_EQ(parseFrameList("5-"), V{5});
  EXPECT_EQ(parseFrameList("1-2-3"), V{1});
  EXPECT_EQ(parseFrameList("-3--1"), V{-3});
  EXPECT_EQ(parseFrameList("abc,,7x, 8"), (V{7, 8}));
  EXPECT_EQ(parseFrameList(""), V{});
  EXPECT_EQ(parseFrameList("99999999999,2"), V{2});
  // The top of the int range must not wrap around.
  EXPECT_EQ(parseFrameList("2147483646-2147483647"), (V{INT_MAX - 1, INT_MAX}));
  // A written list (the farm hands chunks to -t this way) reads back the same.
  for (const V& frames : {V{}, V{7}, V{1, 2, 3, 4}, V{1, 2, 5, 6, 7, 9}, V{-3, -2, -1, 0, 1, 2},
                          V{5, 4, 3}, V{3, 1, 3}, V{INT_MAX - 1, INT_MAX}})
    EXPECT_EQ(parseFrameList(Arbolite3::Base::formatFrameList(frames)), frames);
  EXPECT_EQ(Arbolite3::Base::formatFrameList({1, 2, 3, 4, 8, 9}), "1-4,8,9");
}

TEST(FormatFrameNumber, PaddedToSixWithSuffixForNegatives) {
  EXPECT_EQ(formatFrameNumber(7), "000007");
  EXPECT_EQ(formatFrameNumber(0), "000000");
  EXPECT_EQ(formatFrameNumber(1234567), "1234567");
  EXPECT_EQ(formatFrameNumber(-3), "000003n");
  EXPECT_EQ(formatFrameNumber(INT_MIN), "2147483648n");
}

class ExpandOpTreeFiles : public testing::Test {
 protected:
  std::string touch(const std::string& name) { return dir.write(name, "{}"); }
  kindlettest::TempDir dir;
};

TEST_F(ExpandOpTreeFiles, OnlyRegularFilesInFrameOrder) {
  const std::string f1 = touch("s.000001.json");
  const std::string f3 = touch("s.000003.json");
  const std::string fn2 = touch("s.000002n.json");
  boost::filesystem::create_directory(dir.file("s.000004.json"));
  const std::string pattern = dir.file("s.*.json");
  EXPECT_EQ(expandOpTreeFiles(pattern, "3,1-4,3,-2"),
            (std::vector<std::string>{f3, f1, f3, f3, fn2}));
  EXPECT_TRUE(expandOpTreeFiles(pattern, "").empty());
  EXPECT_TRUE(expandOpTreeFiles(pattern, "5-1").empty());
}

TEST_F(ExpandOpTreeFiles, EveryStarGetsTheSameNumber) {
  boost::filesystem::create_directory(dir.file("000002"));
  const std::string file = touch("000002/f000002.json");
  EXPECT_EQ(expandOpTreeFiles(dir.file("*/f*.json"), "2"), std::vector<std::string>{file});
}

}  // namespace
