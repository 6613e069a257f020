#include <climits>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "KINDLET/src/Arguments.h"
#include "KINDLET/src/OpTreeFiles.h"
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

TEST(ParseArguments, FewerThanThreeTokensStoreNothing) {
  int result = 0;
  EXPECT_TRUE(parse({"kindlet", "-a"}, &result).empty());
  EXPECT_EQ(result, -1);
}

TEST(ParseArguments, PairsSkippedTokensAndDroppedTrailingName) {
  int result = -1;
  OptionMap options = parse({"kindlet", "x", "y", "-a", "1", "-b"}, &result);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(options, (OptionMap{{"a", "1"}}));
}

TEST(ParseArguments, ValuesTakenAsTheyStandAndLastWins) {
  OptionMap options = parse({"kindlet", "-a", "-b", "-c", "1", "-t", "-5", "-c", "2",
                             "-threads=4", "x", "--threads", "4", "-e", ""});
  EXPECT_EQ(options, (OptionMap{{"a", "-b"}, {"c", "2"}, {"t", "-5"}, {"threads=4", "x"},
                                {"-threads", "4"}, {"e", ""}}));
}

TEST(ParseArguments, ProgramNameIsAnOrdinaryToken) {
  EXPECT_EQ(parse({"-prog", "v", "w"}), (OptionMap{{"prog", "v"}}));
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

TEST_F(ExpandOpTreeFiles, NameWithoutStarIsKeptUnchecked) {
  const std::string missing = dir.file("nowhere.json");
  EXPECT_EQ(expandOpTreeFiles(missing, "1-3"), std::vector<std::string>{missing});
}

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
