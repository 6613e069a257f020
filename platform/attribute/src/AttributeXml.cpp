// Text form of an attribute tree; the format is described in
// docs/attribute-xml.md.
#include <charconv>

#include "AttributeNode.h"

namespace Arbolite3 {
namespace internal {
namespace XoAttribute {
namespace detail {

namespace {

void appendEscaped(std::string& out, const std::string& text) {
  static const char kHex[] = "0123456789ABCDEF";
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      default:
        if (c < 0x20 || c == 0x7F) {
          out += "&#x";
          if (c >= 0x10) out += kHex[c >> 4];
          out += kHex[c & 0xF];
          out += ';';
        } else {
          out += ch;
        }
    }
  }
}

// Shortest text that reads back to the same value, independent of locale.
template <typename T>
void appendNumber(std::string& out, T value) {
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  out.append(buffer, result.ptr);
}

const char* typeName(int type) {
  switch (type) {
    case kXoAttributeTypeNull: return "NullAttr";
    case kXoAttributeTypeInt: return "IntAttr";
    case kXoAttributeTypeFloat: return "FloatAttr";
    case kXoAttributeTypeDouble: return "DoubleAttr";
    case kXoAttributeTypeString: return "StringAttr";
    default: return "GroupAttr";
  }
}

void openTag(std::string& out, const std::string* name, int type) {
  out += "<attr";
  if (name != nullptr) {
    out += " name=\"";
    appendEscaped(out, *name);
    out += '"';
  }
  out += " type=\"";
  out += typeName(type);
  out += '"';
}

template <typename T>
void appendData(std::string& out, const Node* node) {
  auto* data = static_cast<const DataNode<T>*>(node);
  out += " tupleSize=\"";
  appendNumber(out, data->tupleSize);
  out += "\" size=\"";
  appendNumber(out, data->values.size());
  out += "\"><sample value=\"";
  bool first = true;
  for (T value : data->values) {
    if (!first) out += ' ';
    first = false;
    appendNumber(out, value);
  }
  out += "\"/></attr>";
}

void appendStrings(std::string& out, const Node* node) {
  auto* data = static_cast<const StringNode*>(node);
  out += " tupleSize=\"";
  appendNumber(out, data->tupleSize);
  out += "\" size=\"";
  appendNumber(out, data->values.size());
  out += "\"><sample>";
  for (const std::string& value : data->values) {
    out += "<string value=\"";
    appendEscaped(out, value);
    out += "\"/>";
  }
  out += "</sample></attr>";
}

// Writes a whole leaf, or the opening tag of a non-empty group (true).
bool appendNode(std::string& out, const std::string* name, const Node* node) {
  openTag(out, name, node->type);
  switch (node->type) {
    case kXoAttributeTypeNull: out += "/>"; return false;
    case kXoAttributeTypeInt: appendData<int32_t>(out, node); return false;
    case kXoAttributeTypeFloat: appendData<float>(out, node); return false;
    case kXoAttributeTypeDouble: appendData<double>(out, node); return false;
    case kXoAttributeTypeString: appendStrings(out, node); return false;
    default: break;
  }
  auto* group = static_cast<const GroupNode*>(node);
  out += group->groupInherit ? " inheritChildren=\"true\"" : " inheritChildren=\"false\"";
  if (group->children.empty()) {
    out += "/>";
    return false;
  }
  out += '>';
  return true;
}

}  // namespace

std::string nodeToXml(const Node* root) {
  std::string out;
  if (root == nullptr) return out;
  struct Frame {
    const GroupNode* group;
    size_t next;
  };
  std::vector<Frame> stack;
  if (appendNode(out, nullptr, root)) stack.push_back({static_cast<const GroupNode*>(root), 0});
  while (!stack.empty()) {
    Frame& frame = stack.back();
    if (frame.next == frame.group->children.size()) {
      out += "</attr>";
      stack.pop_back();
      continue;
    }
    const GroupChild& child = frame.group->children[frame.next++];
    if (appendNode(out, &child.name, child.node.get())) {
      stack.push_back({static_cast<const GroupNode*>(child.node.get()), 0});
    }
  }
  return out;
}

}  // namespace detail
}  // namespace XoAttribute
}  // namespace internal
}  // namespace Arbolite3
