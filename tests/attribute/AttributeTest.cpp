#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "XoAttribute/Attribute.h"

using namespace Arbolite3::internal::XoAttribute;

TEST(Attribute, InvalidHandlesAndTypedViews) {
  Attribute none;
  EXPECT_EQ(none.getType(), kTypeInvalid);
  EXPECT_EQ(none.getXML(), "");
  EXPECT_EQ(none.getBinary(), "");
  EXPECT_EQ(none, Attribute());
  EXPECT_NE(none, NullAttribute());
  EXPECT_FALSE(GroupAttribute(none).getChildByName("a").isValid());
  EXPECT_EQ(IntAttribute(none).getValue(7), 7);
  EXPECT_EQ(FloatAttribute(nullptr, 0, 2).getValue(-1.f), -1.f);  // valid, but empty
  // A view of another type is invalid.
  Attribute i = IntAttribute(5);
  EXPECT_TRUE(IntAttribute(i).isValid());
  EXPECT_FALSE(FloatAttribute(i).isValid());
  EXPECT_FALSE(StringAttribute(i).isValid());
  EXPECT_FALSE(GroupAttribute(i).isValid());
  EXPECT_EQ(StringAttribute(Attribute(StringAttribute("x"))).getValue(), "x");
}

TEST(Attribute, DeepEquality) {
  GroupBuilder a, b;
  a.set("x.y", IntAttribute(1)).set("s", StringAttribute("t"));
  b.set("x.y", IntAttribute(1)).set("s", StringAttribute("t"));
  GroupAttribute ga = a.build(GroupBuilder::BuildAndRetain), gb = b.build(GroupBuilder::BuildAndRetain);
  EXPECT_NE(ga.getHandle(), gb.getHandle());
  EXPECT_EQ(ga, gb);

  b.set("x.y", IntAttribute(2));
  EXPECT_NE(ga, b.build(GroupBuilder::BuildAndRetain)) << "nested value differs";
  GroupBuilder c;
  c.set("s", StringAttribute("t")).set("x.y", IntAttribute(1));
  EXPECT_NE(ga, c.build()) << "child order matters";
  a.setGroupInherit(false);
  EXPECT_NE(ga, a.build()) << "inherit flag matters";

  const int32_t v[] = {1, 2, 3, 4};
  EXPECT_NE(IntAttribute(v, 4, 2), IntAttribute(v, 4, 1)) << "tuple size matters";
  EXPECT_NE(Attribute(IntAttribute(0)), Attribute(FloatAttribute(0.f))) << "type matters";

  double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(DoubleAttribute(nan), DoubleAttribute(nan));
  EXPECT_NE(DoubleAttribute(0.0), DoubleAttribute(-0.0));
}

TEST(Attribute, GroupLookupByNameAndPath) {
  GroupBuilder b;
  b.set("a.b.c", IntAttribute(3)).set("top", StringAttribute("t"));
  // Enough siblings that the group uses its sorted index.
  for (int i = 0; i < 40; ++i) b.set("a.n" + std::to_string(i), IntAttribute(i));
  GroupAttribute g = b.build();
  EXPECT_EQ(IntAttribute(g.getChildByName("a.b.c")).getValue(), 3);
  EXPECT_EQ(StringAttribute(g.getChildByName("top")).getValue(), "t");
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(IntAttribute(g.getChildByName("a.n" + std::to_string(i))).getValue(-1), i);
  }
  EXPECT_FALSE(g.getChildByName("a.n40").isValid());
  EXPECT_FALSE(g.getChildByName("a.b.c.d").isValid()) << "path through a non-group";
  EXPECT_FALSE(g.getChildByName("").isValid());
  EXPECT_FALSE(g.getChildByName("a..b").isValid());
  EXPECT_FALSE(g.getChildByName("a.").isValid());
  EXPECT_FALSE(g.getChildByName(".a").isValid());
  EXPECT_EQ(g.getChildName(0), "a");
  EXPECT_EQ(g.getChildName(2), "");
  EXPECT_FALSE(g.getChildByIndex(2).isValid());
}
