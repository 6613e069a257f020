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
