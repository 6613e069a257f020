#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "SampleAttributes.h"
#include "XoAttribute/Attribute.h"

using namespace Arbolite3::internal::XoAttribute;

TEST(Xml, ExactTextOfASmallTree) {
  const int32_t ints[] = {1, -2, 3, 4};
  GroupBuilder b;
  b.set("a", IntAttribute(ints, 4, 2));
  b.set("n", NullAttribute());
  b.set("s", StringAttribute({"x", "y z"}, 1));
  b.set("g.e", GroupBuilder().build(), false);
  b.set("f", FloatAttribute(nullptr, 0, 3));
  EXPECT_EQ(b.build().getXML(),
            "<attr type=\"GroupAttr\" inheritChildren=\"true\">"
            "<attr name=\"a\" type=\"IntAttr\" tupleSize=\"2\" size=\"4\"><sample value=\"1 -2 3 4\"/></attr>"
            "<attr name=\"n\" type=\"NullAttr\"/>"
            "<attr name=\"s\" type=\"StringAttr\" tupleSize=\"1\" size=\"2\"><sample>"
            "<string value=\"x\"/><string value=\"y z\"/></sample></attr>"
            "<attr name=\"g\" type=\"GroupAttr\" inheritChildren=\"false\">"
            "<attr name=\"e\" type=\"GroupAttr\" inheritChildren=\"true\"/></attr>"
            "<attr name=\"f\" type=\"FloatAttr\" tupleSize=\"3\" size=\"0\"><sample value=\"\"/></attr>"
            "</attr>");
}

TEST(Xml, EscapesMarkupAndControlCharactersInValuesAndNames) {
  GroupBuilder b;
  const char value[] = "a&b<c>d\"e'f\tg\nh\x1F\x7F\0i\xC3\xA9";
  b.set("<&>\"'", StringAttribute(std::string(value, sizeof(value) - 1)));
  EXPECT_EQ(b.build().getXML(),
            "<attr type=\"GroupAttr\" inheritChildren=\"true\">"
            "<attr name=\"&lt;&amp;&gt;&quot;&apos;\" type=\"StringAttr\" tupleSize=\"1\" size=\"1\">"
            "<sample><string value=\"a&amp;b&lt;c&gt;d&quot;e&apos;f&#x9;g&#xA;h&#x1F;&#x7F;&#x0;i\xC3\xA9\"/>"
            "</sample></attr></attr>");
}

TEST(Xml, NumbersReadBackExactly) {
  const float f[] = {0.1f, 1.0f / 3.0f, 3.4028235e38f, 1e-45f};
  const double d[] = {0.1, 1.0 / 3.0, 1.7976931348623157e308, 5e-324, -0.0};
  std::string text = FloatAttribute(f, 4, 1).getXML() + DoubleAttribute(d, 5, 1).getXML();
  std::vector<std::string> found;
  const std::string key = "value=\"";
  for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at)) {
    at += key.size();
    found.push_back(text.substr(at, text.find('"', at) - at));
  }
  ASSERT_EQ(found.size(), 2u);
  const char* p = found[0].c_str();
  for (float expected : f) {
    char* end;
    EXPECT_EQ(std::strtof(p, &end), expected);
    p = end;
  }
  p = found[1].c_str();
  for (double expected : d) {
    char* end;
    double got = std::strtod(p, &end);
    EXPECT_EQ(got, expected);
    EXPECT_EQ(std::signbit(got), std::signbit(expected));
    p = end;
  }
}
