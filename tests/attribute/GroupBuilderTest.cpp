#include <gtest/gtest.h>

#include "XoAttribute/Attribute.h"

using namespace Arbolite3::internal::XoAttribute;

namespace {

std::vector<std::string> names(const GroupAttribute& g) {
  std::vector<std::string> out;
  for (size_t i = 0; i < g.getNumberOfChildren(); ++i) out.push_back(g.getChildName(i));
  return out;
}

int intAt(const GroupAttribute& g, const std::string& path) {
  return IntAttribute(g.getChildByName(path)).getValue(-1);
}

using Names = std::vector<std::string>;

}  // namespace

TEST(GroupBuilder, DottedSetCreatesAndEntersGroups) {
  GroupBuilder b;
  b.set("a.b.c", IntAttribute(1), false);
  b.set("a.b.d", IntAttribute(2));
  b.set("a.x", IntAttribute(3));
  GroupAttribute g = b.build();
  EXPECT_EQ(names(g), Names{"a"});
  EXPECT_EQ(names(GroupAttribute(g.getChildByName("a"))), (Names{"b", "x"}));
  EXPECT_EQ(names(GroupAttribute(g.getChildByName("a.b"))), (Names{"c", "d"}));
  EXPECT_EQ(intAt(g, "a.b.c"), 1);
  EXPECT_EQ(intAt(g, "a.b.d"), 2);
  // Created with the flag of the set that made them; later sets keep it.
  EXPECT_FALSE(GroupAttribute(g.getChildByName("a")).getGroupInherit());
  EXPECT_FALSE(GroupAttribute(g.getChildByName("a.b")).getGroupInherit());
  // A non-group in the way is replaced in place.
  GroupBuilder r;
  g = r.set("p", IntAttribute(1)).set("q", IntAttribute(2)).set("p.c", IntAttribute(3)).build();
  EXPECT_EQ(names(g), (Names{"p", "q"}));
  EXPECT_EQ(intAt(g, "p.c"), 3);
}

TEST(GroupBuilder, DottedSetIntoAFinishedGroupKeepsItsChildrenAndFlag) {
  GroupBuilder inner;
  inner.set("keep", IntAttribute(1)).set("swap", IntAttribute(2)).setGroupInherit(false);
  GroupAttribute original = inner.build();
  GroupBuilder b;
  b.set("first", NullAttribute()).set("g", original).set("last", NullAttribute());
  b.set("g.swap", IntAttribute(20)).set("g.new", IntAttribute(30), true);
  GroupAttribute g = b.build();
  EXPECT_EQ(names(g), (Names{"first", "g", "last"}));
  GroupAttribute sub(g.getChildByName("g"));
  EXPECT_EQ(names(sub), (Names{"keep", "swap", "new"}));
  EXPECT_EQ(intAt(g, "g.swap"), 20);
  EXPECT_FALSE(sub.getGroupInherit());
  EXPECT_EQ(intAt(original, "swap"), 2) << "the finished group is not changed";
}

TEST(GroupBuilder, BadNamesAreIgnoredAndInvalidAttributesRemove) {
  GroupBuilder b;
  b.set("keep", IntAttribute(1)).set("a.gone", IntAttribute(2)).set("gone", IntAttribute(3));
  for (const char* bad : {"", ".", "a.", ".a", "a..b"}) b.set(bad, IntAttribute(9));
  b.set(std::string("nul\0x", 5), IntAttribute(9));
  b.set("gone", Attribute()).set("a.gone", Attribute()).set("never", Attribute());
  GroupAttribute g = b.build();
  EXPECT_EQ(names(g), (Names{"keep", "a"}));
  EXPECT_EQ(GroupAttribute(g.getChildByName("a")).getNumberOfChildren(), 0u);
}

TEST(GroupBuilder, UpdateReplacesInPlaceAppendsNewAndIsShallow) {
  GroupBuilder b;
  b.set("x", IntAttribute(1)).set("g.keep", IntAttribute(1)).set("y", IntAttribute(2));
  GroupBuilder u;
  u.set("y", IntAttribute(20)).set("g.other", IntAttribute(5)).set("z", IntAttribute(30));
  b.update(u.build());
  b.update(GroupAttribute()).update(GroupAttribute(Attribute(IntAttribute(1))));
  GroupAttribute g = b.build();
  EXPECT_EQ(names(g), (Names{"x", "g", "y", "z"}));
  EXPECT_EQ(intAt(g, "y"), 20);
  EXPECT_EQ(intAt(g, "z"), 30);
  // The whole group "g" was replaced, not merged.
  EXPECT_EQ(names(GroupAttribute(g.getChildByName("g"))), Names{"other"});
  EXPECT_TRUE(g.getGroupInherit());
}

TEST(GroupBuilder, DelByNameAndPath) {
  GroupBuilder b;
  b.set("a.b.c", IntAttribute(1)).set("a.b.d", IntAttribute(2)).set("e", IntAttribute(3));
  b.set("f", IntAttribute(4));
  b.del("a.b.c").del("e").del("missing").del("a.missing.x").del("f.x").del("");
  GroupAttribute g = b.build();
  EXPECT_EQ(names(g), (Names{"a", "f"}));
  EXPECT_EQ(names(GroupAttribute(g.getChildByName("a.b"))), Names{"d"});
  // Names stay findable after a removal shifted later entries.
  b.set("p", IntAttribute(1)).set("q", IntAttribute(2)).set("r", IntAttribute(3));
  b.del("p").set("r", IntAttribute(30));
  EXPECT_EQ(names(b.build()), (Names{"q", "r"}));
}

TEST(GroupBuilder, BuildModes) {
  GroupBuilder b;
  b.set("a.b", IntAttribute(1)).setGroupInherit(false);
  GroupAttribute kept = b.build(GroupBuilder::BuildAndRetain);
  GroupAttribute again = b.build(GroupBuilder::BuildAndRetain);
  EXPECT_EQ(kept, again);
  EXPECT_EQ(kept.getChildByName("a").getHandle(), again.getChildByName("a").getHandle())
      << "a second build shares the finished children";
  b.set("a.c", IntAttribute(2));
  EXPECT_FALSE(kept.getChildByName("a.c").isValid()) << "built groups never change";
  GroupAttribute flushed = b.build(GroupBuilder::BuildAndFlush);
  EXPECT_EQ(intAt(flushed, "a.c"), 2);
  EXPECT_FALSE(flushed.getGroupInherit());
  GroupAttribute empty = b.build();
  EXPECT_EQ(empty.getNumberOfChildren(), 0u);
  EXPECT_TRUE(empty.getGroupInherit()) << "a flush resets the flag";
}

