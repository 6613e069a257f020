// String helpers of the scene library that behave as Python's str methods of
// the same names.
#pragma once

#include <string>
#include <vector>

namespace Arbolite3 {
namespace internal {
namespace pystring_v1 {

// separator.join(items)
std::string join(const std::string& separator, const std::vector<std::string>& items);
// text.replace(old, replacement, count); a negative count replaces all. An
// empty `old` matches between every character, as in Python.
std::string replace(const std::string& text, const std::string& old,
                    const std::string& replacement, int count = -1);

}  // namespace pystring_v1
}  // namespace internal
}  // namespace Arbolite3
