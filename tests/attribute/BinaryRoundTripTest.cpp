#include <gtest/gtest.h>

#include "SampleAttributes.h"
#include "XoAttribute/Attribute.h"

using namespace Arbolite3::internal::XoAttribute;

namespace {

Attribute roundTrip(const Attribute& attr) {
  std::string bytes = attr.getBinary();
  EXPECT_FALSE(bytes.empty());
  return Attribute::parseBinary(bytes.data(), bytes.size());
}

}  // namespace

TEST(BinaryRoundTrip, EachTypeAlone) {
  const double d[] = {1.5, -2.25};
  const std::vector<Attribute> cases = {
      NullAttribute(),
      IntAttribute(-5),
      FloatAttribute(3.5f),
      DoubleAttribute(d, 2, 2),
      StringAttribute("text"),
      StringAttribute(std::string("\0", 1)),
      IntAttribute(nullptr, 0, 1),
      GroupBuilder().build(),
  };
  for (const Attribute& attr : cases) {
    Attribute back = roundTrip(attr);
    ASSERT_TRUE(back.isValid()) << attr.getXML();
    EXPECT_EQ(back, attr) << attr.getXML();
    EXPECT_EQ(back.getBinary(), attr.getBinary());
  }
}

TEST(BinaryRoundTrip, TreeWithEveryTypeAndAwkwardValues) {
  GroupAttribute tree = sample::everyType();
  Attribute back = roundTrip(tree);
  ASSERT_TRUE(back.isValid());
  EXPECT_EQ(back, tree);
  EXPECT_EQ(back.getXML(), tree.getXML());
  GroupAttribute g(back);
  EXPECT_FALSE(GroupAttribute(g.getChildByName("nested")).getGroupInherit());
  EXPECT_FALSE(GroupAttribute(g.getChildByName("nested.noInherit")).getGroupInherit());
  EXPECT_TRUE(GroupAttribute(g.getChildByName("nested.empty")).getGroupInherit());
  EXPECT_EQ(StringAttribute(g.getChildByName("strings")).getValue(), std::string("nul\0inside", 10));
  EXPECT_EQ(IntAttribute(g.getChildByName("ints")).getTupleSize(), 3u);
}

TEST(BinaryRoundTrip, LargeGroupsAndArrays) {
  GroupBuilder b;
  for (int i = 0; i < 1000; ++i) b.set("c" + std::to_string(i), IntAttribute(i));
  std::vector<double> many(1 << 17);
  for (size_t i = 0; i < many.size(); ++i) many[i] = static_cast<double>(i) * 0.5;
  b.set("big", DoubleAttribute(many.data(), many.size(), 1));
  GroupAttribute g = b.build();
  GroupAttribute back(roundTrip(g));
  ASSERT_TRUE(back.isValid());
  EXPECT_EQ(back, g);
  EXPECT_EQ(IntAttribute(back.getChildByName("c999")).getValue(), 999);
}

TEST(BinaryRoundTrip, NestingUpToTheCapAndNoFurther) {
  // 256 nested groups round-trip; one more cannot be written.
  Attribute inner = IntAttribute(1);
  for (int depth = 1; depth <= 256; ++depth) {
    GroupBuilder b;
    b.set("g", inner);
    inner = b.build();
  }
  Attribute back = roundTrip(inner);
  EXPECT_EQ(back, inner);
  GroupBuilder b;
  b.set("g", inner);
  EXPECT_EQ(b.build().getBinary(), "");
}
