// A copyable cursor on one location of a loaded Op tree file: a tree of named
// locations, each with a type, an attribute group and children.
#pragma once

#include <string>

#include "XoAttribute/Attribute.h"
#include "XoScenegraph/XoSgIteratorC.h"

namespace Arbolite3 {
namespace internal {

class XoScenegraphIterator {
 public:
  XoScenegraphIterator() = default;  // invalid
  XoScenegraphIterator(const XoScenegraphIterator& other);
  XoScenegraphIterator& operator=(const XoScenegraphIterator& other);
  ~XoScenegraphIterator();

  // The root location of the file; invalid (with an error log line on the
  // "Arbolite3" channel) when the file is missing, unreadable or malformed.
  static XoScenegraphIterator getIteratorFromFile(const std::string& path);
  // The same from Op tree JSON text already in memory. Logs nothing: on
  // failure the iterator is invalid and `error` (when given) says why.
  static XoScenegraphIterator getIteratorFromText(const std::string& text,
                                                  std::string* error = nullptr);

  bool isValid() const { return handle_ != nullptr; }
  std::string getName() const;
  std::string getFullName() const;  // "/root/a/b"
  std::string getType() const;
  XoAttribute::Attribute getAttribute(const std::string& nameOrPath) const;
  XoAttribute::GroupAttribute getAttributes() const;
  XoScenegraphIterator getFirstChild() const;
  XoScenegraphIterator getNextSibling() const;
  XoScenegraphIterator getChildByName(const std::string& name) const;

  // Borrowed handle for the plug-in boundary; valid while this object lives.
  XoSgIteratorStruct* getHandle() const { return handle_; }
  static XoScenegraphIterator fromHandle(XoSgIteratorStruct* handle);  // retains

 private:
  static XoScenegraphIterator adopt(XoSgIteratorStruct* handle);  // takes the reference
  XoSgIteratorStruct* handle_ = nullptr;
};

}  // namespace internal
}  // namespace Arbolite3
