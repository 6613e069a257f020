#include "XoScenegraph/PyString.h"

namespace Arbolite3 {
namespace internal {
namespace pystring_v1 {

std::string join(const std::string& separator, const std::vector<std::string>& items) {
  std::string result;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) result += separator;
    result += items[i];
  }
  return result;
}

std::string replace(const std::string& text, const std::string& old,
                    const std::string& replacement, int count) {
  std::string result;
  size_t at = 0;
  int done = 0;
  while (count < 0 || done < count) {
    if (old.empty()) {
      // Python inserts before every character and once at the end.
      result += replacement;
      ++done;
      if (at >= text.size()) return result;
      result += text[at++];
      continue;
    }
    const size_t found = text.find(old, at);
    if (found == std::string::npos) break;
    result.append(text, at, found - at);
    result += replacement;
    at = found + old.size();
    ++done;
  }
  result.append(text, at, std::string::npos);
  return result;
}

}  // namespace pystring_v1
}  // namespace internal
}  // namespace Arbolite3
