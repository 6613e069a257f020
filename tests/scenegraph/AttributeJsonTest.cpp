#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "XoScenegraph/AttributeJson.h"

using Arbolite3::internal::attributeFromJsonText;
using Arbolite3::internal::attributeToJsonText;
using namespace Arbolite3::internal::XoAttribute;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

Attribute parse(const std::string& json) {
  std::string error;
  Attribute attr = attributeFromJsonText(json, &error);
  EXPECT_TRUE(attr.isValid()) << json << ": " << error;
  return attr;
}

TEST(AttributeJson, ShorthandsPickTheirTypes) {
  EXPECT_EQ(parse("null").getType(), kTypeNull);
  EXPECT_EQ(StringAttribute(parse(R"("a\"b\u00e9\ud83d\ude00")")).getValue(),
            "a\"b\xc3\xa9\xf0\x9f\x98\x80");
  EXPECT_EQ(IntAttribute(parse("-7")).getValue(), -7);
  EXPECT_EQ(IntAttribute(parse("true")).getValue(), 1);
  EXPECT_EQ(IntAttribute(parse("false")).getValue(-1), 0);
  EXPECT_EQ(FloatAttribute(parse("0.5")).getValue(), 0.5f);
  EXPECT_EQ(FloatAttribute(parse("2e0")).getValue(), 2.0f);  // exponent: float, not int
  EXPECT_THAT(IntAttribute(parse("[1, 2, 3]")).getValues(), ElementsAre(1, 2, 3));
  EXPECT_THAT(FloatAttribute(parse("[1, 2.5]")).getValues(), ElementsAre(1.0f, 2.5f));
  EXPECT_THAT(StringAttribute(parse(R"(["x", "y"])")).getValues(), ElementsAre("x", "y"));

  GroupAttribute group(parse(R"({"type": "spot", "b": {"c": 1}})"));
  ASSERT_TRUE(group.isValid());
  EXPECT_TRUE(group.getGroupInherit());
  EXPECT_EQ(group.getChildName(0), "type");  // "type" is an ordinary child name
  EXPECT_EQ(IntAttribute(group.getChildByName("b.c")).getValue(), 1);
}

TEST(AttributeJson, TypedFormGivesTupleSizesDoublesAndGroupFlags) {
  DoubleAttribute xf(parse(R"({"$type": "double", "$value": [1, 2, 3, 4, 5, 6], "$tupleSize": 3})"));
  ASSERT_TRUE(xf.isValid());
  EXPECT_EQ(xf.getTupleSize(), 3u);
  EXPECT_EQ(xf.getNumberOfValues(), 6u);
  EXPECT_EQ(DoubleAttribute(parse(R"({"$type": "double", "$value": 0.1})")).getValue(), 0.1);
  EXPECT_EQ(IntAttribute(parse(R"({"$type": "int", "$value": []})")).getNumberOfValues(), 0u);
  const std::vector<float> special =
      FloatAttribute(parse(R"({"$type": "float", "$value": ["NaN", "-Infinity", 1e-45]})")).getValues();
  ASSERT_EQ(special.size(), 3u);
  EXPECT_TRUE(std::isnan(special[0]));
  EXPECT_EQ(special[1], -std::numeric_limits<float>::infinity());
  EXPECT_GT(special[2], 0.0f);  // the smallest denormal, not zero
  EXPECT_EQ(parse(R"("NaN")").getType(), kTypeString);  // plain texts stay texts
  EXPECT_EQ(parse(R"({"$type": "null"})").getType(), kTypeNull);
  EXPECT_EQ(parse("\xEF\xBB\xBF{}").getType(), kTypeGroup);  // a whole byte-order mark
  GroupAttribute g(parse(R"({"$type": "group", "$groupInherit": false, "$value": {"$odd": 1}})"));
  ASSERT_TRUE(g.isValid());
  EXPECT_FALSE(g.getGroupInherit());
  EXPECT_EQ(g.getChildName(0), "$odd");  // names are free inside the typed form
}

TEST(AttributeJson, RejectsAmbiguousOrBrokenInput) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"[]", "empty array has no type"},
      {R"([1, "a"])", "all strings or all numbers"},
      {"2147483648", "outside the 32-bit integer range"},
      {"[1, 3000000000]", "outside the 32-bit integer range"},
      {"1e39", "outside the float range"},
      {"1e-50", "outside the float range"},
      {R"({"$type": "double", "$value": 1e-400})", "outside the double range"},
      {R"(["\udc00"])", "lone surrogate"},  // the parser lets a lone low one through
      {R"({"\ud800x": 1})", "surrogate"},
      {R"({"$type": "float", "$value": "nan"})", "number expected"},
      {R"({"$x": 1})", "reserved"},
      {R"({"a.b": 1})", "contains '.'"},
      {R"({"a": 1, "a": 2})", "duplicate child name \"a\""},
      {R"({"g": {"$type": "vector"}})", "attribute \"g\": unknown \"$type\" \"vector\""},
      {R"({"$type": "int", "$value": 1.5})", "int value expected"},
      {R"({"$type": "float", "$value": [1, 2], "$tupleSize": 3})", "do not fill tuples of 3"},
      {R"({"$type": "float", "$value": [1], "$tupleSize": 0})", "positive integer"},
      {R"({"$type": "int", "$groupInherit": true})", "groups only"},
      {R"({"$type": "group", "$value": [1]})", "must be an object"},
      {R"({"$type": "int", "value": 1})", "unknown key \"value\""},
      // The parser's stream would end the text at the NUL and read 123.
      {std::string("123\0 00", 6), "byte 3: a NUL byte"},
      // Only a whole byte-order mark is skipped, not a prefix of one.
      {"\xEF\xBB{}", "JSON error at byte 0"},
      {"\xEF\xBB\xBF\xBF{}", "JSON error at byte 3"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(attributeFromJsonText(c.first, &error).isValid()) << c.first;
    EXPECT_THAT(error, HasSubstr(c.second)) << c.first;
  }
  std::string deep;
  for (int i = 0; i < 65; ++i) deep += "{\"a\":";
  deep += "1" + std::string(65, '}');
  std::string error;
  EXPECT_FALSE(attributeFromJsonText(deep, &error).isValid());
  EXPECT_THAT(error, HasSubstr("nested deeper than 64"));
}

TEST(AttributeJson, WritesCompactCanonicalText) {
  EXPECT_EQ(attributeToJsonText(IntAttribute(7)), "7");
  EXPECT_EQ(attributeToJsonText(StringAttribute("a\nb")), R"("a\nb")");
  EXPECT_EQ(attributeToJsonText(FloatAttribute(0.1f)), R"({"$type":"float","$value":[0.1]})");
  const float rgb[] = {1.0f, 0.5f, -0.0f};
  EXPECT_EQ(attributeToJsonText(FloatAttribute(rgb, 3, 3)),
            R"({"$type":"float","$tupleSize":3,"$value":[1.0,0.5,-0.0]})");
  GroupBuilder builder;
  builder.set("n", NullAttribute()).set("s", StringAttribute(std::vector<std::string>{"a", "b"}, 1));
  EXPECT_EQ(attributeToJsonText(builder.build()), R"({"n":null,"s":["a","b"]})");
  EXPECT_EQ(attributeToJsonText(Attribute()), "");
  EXPECT_EQ(attributeToJsonText(StringAttribute("\xff")), "");  // not UTF-8
}

// attribute -> text -> attribute gives an equal attribute for every type.
TEST(AttributeJson, RoundTrips) {
  const float floats[] = {0.1f, -1e-30f, 3.4028235e38f, std::numeric_limits<float>::infinity(),
                          std::numeric_limits<float>::quiet_NaN(), 1e-45f};
  const double doubles[] = {0.1, 1e300, -2.5, std::numeric_limits<double>::denorm_min()};
  const int32_t ints[] = {std::numeric_limits<int32_t>::min(), 0, 7,
                          std::numeric_limits<int32_t>::max()};
  GroupBuilder inner;
  inner.set("$weird", IntAttribute(1)).setGroupInherit(false);
  GroupBuilder builder;
  builder.set("f", FloatAttribute(floats, 6, 2))
      .set("f1", FloatAttribute(2.0f))
      .set("d", DoubleAttribute(doubles, 4, 1))
      .set("i", IntAttribute(ints, 4, 2))
      .set("i0", IntAttribute(ints, 0, 1))
      .set("s", StringAttribute(std::vector<std::string>{"", "\xe2\x82\xac", "q\"\\"}, 3))
      .set("s1", StringAttribute("one"))
      .set("n", NullAttribute())
      .set("g", inner.build())
      .set("deep.er.still", StringAttribute("x"));
  const GroupAttribute original = builder.build();
  const std::string text = attributeToJsonText(original);
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(parse(text), original) << text;
  EXPECT_EQ(attributeToJsonText(parse(text)), text);
  // Long decimals must be read exactly, or their shortest text reads back
  // as a neighbouring double.
  const Attribute longDigits = parse(
      R"({"$type": "double", "$value": [77777777777777777777483877483874832483274837483448387448)"
      R"(332748387483448387483248327467664966549677496687777, 77777777777777777777]})");
  EXPECT_EQ(parse(attributeToJsonText(longDigits)), longDigits);
  for (const Attribute& single : {Attribute(IntAttribute(ints, 4, 1)), Attribute(NullAttribute()),
                                  Attribute(DoubleAttribute(doubles, 4, 4))})
    EXPECT_EQ(parse(attributeToJsonText(single)), single);
}

}  // namespace
