#include "JsonReading.h"
#include "OpTree.h"

namespace Arbolite3 {
namespace internal {
namespace detail {

namespace {

constexpr int kFormatVersion = 1;

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string text(const rapidjson::Value& v) { return std::string(v.GetString(), v.GetStringLength()); }

class Reader {
 public:
  explicit Reader(std::string* error) : error_(error) {}

  bool fail(const std::string& where, const std::string& reason) {
    if (error_ != nullptr) *error_ = where.empty() ? reason : "location " + quoted(where) + ": " + reason;
    return false;
  }

  bool readDocument(const rapidjson::Value& document, OpTree* tree) {
    if (!document.IsObject()) return fail("", "the top level must be an object with \"optree\" and \"root\"");
    const rapidjson::Value* version = nullptr;
    const rapidjson::Value* root = nullptr;
    for (auto it = document.MemberBegin(); it != document.MemberEnd(); ++it) {
      const std::string key = text(it->name);
      const rapidjson::Value** slot = key == "optree" ? &version : key == "root" ? &root : nullptr;
      if (slot == nullptr) return fail("", "unknown top-level key " + quoted(key));
      if (*slot != nullptr) return fail("", "duplicate top-level key " + quoted(key));
      *slot = &it->value;
    }
    if (version == nullptr) return fail("", "missing \"optree\" format version");
    if (numberText(*version) != std::to_string(kFormatVersion))
      return fail("", "unsupported \"optree\" format version (this reader knows " +
                          std::to_string(kFormatVersion) + ")");
    if (root == nullptr) return fail("", "missing \"root\" location");
    tree->root = std::make_unique<OpTreeLocation>();
    return readLocation(*root, nullptr, 0, tree->root.get());
  }

 private:
  bool readLocation(const rapidjson::Value& json, const OpTreeLocation* parent, int depth,
                    OpTreeLocation* out) {
    const std::string parentPath = parent == nullptr ? std::string() : parent->fullName;
    const std::string guess = parentPath + "/?";
    if (depth >= kMaxLocationDepth)
      return fail(parentPath, "locations nested deeper than " + std::to_string(kMaxLocationDepth));
    if (!json.IsObject()) return fail(guess, "a location must be an object");

    const rapidjson::Value* name = nullptr;
    const rapidjson::Value* type = nullptr;
    const rapidjson::Value* attributes = nullptr;
    const rapidjson::Value* children = nullptr;
    for (auto it = json.MemberBegin(); it != json.MemberEnd(); ++it) {
      const std::string key = text(it->name);
      const rapidjson::Value** slot = key == "name"         ? &name
                                      : key == "type"       ? &type
                                      : key == "attributes" ? &attributes
                                      : key == "children"   ? &children
                                                            : nullptr;
      if (slot == nullptr)
        return fail(guess, "unknown key " + quoted(key) + " (allowed: name, type, attributes, children)");
      if (*slot != nullptr) return fail(guess, "duplicate key " + quoted(key));
      *slot = &it->value;
    }

    if (name != nullptr) {
      if (!isText(*name)) return fail(guess, "\"name\" must be a string");
      out->name = text(*name);
      if (out->name.empty()) return fail(guess, "\"name\" is empty");
      if (out->name.find('/') != std::string::npos)
        return fail(parentPath + "/" + out->name, "\"name\" contains '/'");
      if (out->name.find('\0') != std::string::npos) return fail(guess, "\"name\" contains a NUL character");
    } else if (parent != nullptr) {
      return fail(guess, "missing \"name\"");
    } else {
      out->name = "root";
    }
    out->fullName = parentPath + "/" + out->name;
    out->parent = parent;

    if (type != nullptr) {
      if (!isText(*type)) return fail(out->fullName, "\"type\" must be a string");
      out->type = text(*type);
      if (out->type.find('\0') != std::string::npos)
        return fail(out->fullName, "\"type\" contains a NUL character");
    } else {
      out->type = "group";
    }

    if (attributes != nullptr) {
      std::string why;
      XoAttribute::Attribute attrs = attributeFromJsonValue(*attributes, "", 0, &why);
      if (!attrs.isValid()) return fail(out->fullName, "\"attributes\": " + why);
      if (attrs.getType() != XoAttribute::kTypeGroup)
        return fail(out->fullName, "\"attributes\" must be a group");
      out->attributes = XoAttribute::GroupAttribute(attrs);
    } else {
      out->attributes = XoAttribute::GroupBuilder().build();
    }

    if (children == nullptr) return true;
    if (!children->IsArray()) return fail(out->fullName, "\"children\" must be an array");
    out->children.reserve(children->Size());
    for (rapidjson::SizeType i = 0; i < children->Size(); ++i) {
      auto child = std::make_unique<OpTreeLocation>();
      child->indexInParent = i;
      if (!readLocation((*children)[i], out, depth + 1, child.get())) return false;
      if (!out->childIndex.emplace(child->name, i).second)
        return fail(out->fullName, "duplicate child name " + quoted(child->name));
      out->children.push_back(std::move(child));
    }
    return true;
  }

  std::string* error_;
};

}  // namespace

std::shared_ptr<const OpTree> readOpTree(const char* data, size_t size, std::string* error) {
  if (size > kMaxJsonBytes) {
    if (error != nullptr) *error = "larger than the limit of " + std::to_string(kMaxJsonBytes) + " bytes";
    return nullptr;
  }
  rapidjson::Document document;
  if (!parseJson(document, data, size, error)) return nullptr;
  auto tree = std::make_shared<OpTree>();
  Reader reader(error);
  if (!reader.readDocument(document, tree.get())) {
    if (error != nullptr) *error = "not a valid Op tree: " + *error;
    return nullptr;
  }
  return tree;
}

}  // namespace detail
}  // namespace internal
}  // namespace Arbolite3
