// Fuzzes the Op tree reader and the JSON attribute mapping. Every accepted
// input is walked completely, and every attribute it yields must survive a
// trip through its JSON text unchanged.
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <string>
#include <vector>

#include "XoScenegraph/AttributeJson.h"
#include "XoScenegraph/XoScenegraphIterator.h"

using Arbolite3::internal::XoScenegraphIterator;
using Arbolite3::internal::attributeFromJsonText;
using Arbolite3::internal::attributeToJsonText;
using Arbolite3::internal::XoAttribute::Attribute;

namespace {

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz_optree: %s\n", what);
    std::abort();
  }
}

void roundTrip(const Attribute& attr) {
  const std::string text = attributeToJsonText(attr);
  check(!text.empty(), "a parsed attribute has no JSON text");
  std::string error;
  const Attribute back = attributeFromJsonText(text, &error);
  check(back.isValid(), "the JSON text of an attribute does not parse");
  check(back == attr, "the JSON round trip changed the attribute");
  check(attributeToJsonText(back) == text, "the JSON text is not canonical");
}

void walk(const XoScenegraphIterator& root) {
  std::vector<XoScenegraphIterator> stack{root};
  while (!stack.empty()) {
    XoScenegraphIterator it = stack.back();
    stack.pop_back();
    check(!it.getName().empty(), "empty location name");
    check(it.getFullName().size() > it.getName().size(), "full name shorter than the name");
    it.getType();
    roundTrip(it.getAttributes());
    for (XoScenegraphIterator child = it.getFirstChild(); child.isValid();
         child = child.getNextSibling()) {
      check(it.getChildByName(child.getName()).getFullName() == child.getFullName(),
            "child lookup by name disagrees with the sibling walk");
      stack.push_back(child);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string error;
  XoScenegraphIterator root = XoScenegraphIterator::getIteratorFromText(text, &error);
  if (root.isValid())
    walk(root);
  else
    check(!error.empty(), "a rejected Op tree has no reason");

  const Attribute attr = attributeFromJsonText(text, &error);
  if (attr.isValid()) roundTrip(attr);
  return 0;
}
