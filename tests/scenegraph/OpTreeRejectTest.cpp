#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "KindletTestSupport.h"
#include "XoScenegraph/XoScenegraphIterator.h"

using Arbolite3::internal::XoScenegraphIterator;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// Loading `path` fails with exactly one error line naming the file and `reason`.
void expectRejected(const std::string& path, const std::string& reason) {
  kindlettest::newLogLines();
  EXPECT_FALSE(XoScenegraphIterator::getIteratorFromFile(path).isValid()) << path;
  EXPECT_THAT(kindlettest::newLogLines(),
              ElementsAre(AllOf(StartsWith("[ERROR Arbolite3] Cannot load Op tree file \"" + path + "\": "),
                                HasSubstr(reason))));
}

TEST(OpTreeReject, FilesThatCannotBeReadOrAreNotJson) {
  const kindlettest::TempDir& dir = kindlettest::scratch();
  ASSERT_EQ(mkdir(dir.file("adirectory.json").c_str(), 0755), 0);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {dir.file("missing.json"), "does not exist"},
      {dir.file("adirectory.json"), "is a directory"},
      {"/dev/null", "not a regular file"},
      {dir.write("empty.json", ""), "JSON error at byte 0"},
      {dir.write("text.json", "camera at the origin\n"), "JSON error"},
      {dir.write("cut.json", R"({"optree": 1, "root": {"children": [)"), "JSON error"},
      {dir.write("trailing.json", R"({"optree": 1, "root": {}} x)"), "JSON error"},
      {dir.write("latin1.json", "{\"optree\": 1, \"root\": {\"type\": \"\xe9\"}}"), "JSON error"},
  };
  for (const auto& c : cases) expectRejected(c.first, c.second);
}

// Well-formed JSON that is not an Op tree: each text with a part of its reason.
TEST(OpTreeReject, JsonOfTheWrongShape) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"([1, 2])", "top level must be an object"},
      {R"({"root": {}})", "missing \"optree\""},
      {R"({"optree": 2, "root": {}})", "unsupported \"optree\" format version"},
      {R"({"optree": 1})", "missing \"root\""},
      {R"({"optree": 1, "root": {}, "extra": 0})", "unknown top-level key \"extra\""},
      {R"({"optree": 1, "root": {"kids": []}})", "unknown key \"kids\""},
      {R"({"optree": 1, "root": {"children": {}}})", "\"children\" must be an array"},
      {R"({"optree": 1, "root": {"children": [{"type": "x"}]}})", "missing \"name\""},
      {R"({"optree": 1, "root": {"children": [{"name": "a/b"}]}})",
       "location \"/root/a/b\": \"name\" contains '/'"},
      {R"({"optree": 1, "root": {"children": [{"name": "a"}, {"name": "a"}]}})",
       "location \"/root\": duplicate child name \"a\""},
      {R"({"optree": 1, "root": {"attributes": 5}})", "\"attributes\" must be a group"},
      {R"({"optree": 1, "root": {"children": [{"name": "l", "attributes": {"c": [1, "x"]}}]}})",
       "location \"/root/l\": \"attributes\": attribute \"c\": array elements must be all"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(XoScenegraphIterator::getIteratorFromText(c.first, &error).isValid()) << c.first;
    EXPECT_THAT(error, AllOf(StartsWith("not a valid Op tree: "), HasSubstr(c.second))) << c.first;
  }
  expectRejected(kindlettest::scratch().write("shape.json", cases[1].first), "missing \"optree\"");
}

TEST(OpTreeReject, NestingIsCapped) {
  auto nested = [](int depth) {
    std::string text = R"({"optree": 1, "root": )";
    for (int i = 0; i < depth; ++i) text += R"({"name": "n", "children": [)";
    text += "{\"name\": \"leaf\"}";
    for (int i = 0; i < depth; ++i) text += "]}";
    return text + "}";
  };
  std::string error;
  EXPECT_TRUE(XoScenegraphIterator::getIteratorFromText(nested(200), &error).isValid()) << error;
  EXPECT_FALSE(XoScenegraphIterator::getIteratorFromText(nested(300), &error).isValid());
  EXPECT_THAT(error, HasSubstr("nested deeper than"));
  // Far deeper than any cap: refused without exhausting the stack.
  EXPECT_FALSE(XoScenegraphIterator::getIteratorFromText(std::string(500000, '['), &error).isValid());
  EXPECT_FALSE(XoScenegraphIterator::getIteratorFromText(nested(100000), &error).isValid());
}

}  // namespace
