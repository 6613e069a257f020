// Writing a whole file so that a reader sees the old contents or all of the
// new ones, never a part: the text goes to a temporary file beside it, which
// is then renamed over it.
#pragma once

#include <string>

namespace Arbolite3 {
namespace Base {

// With `sync` the data is on the disk before the name points at it, for
// readers on other machines. Returns 0 or the errno of the step that failed;
// the temporary file is then gone and `path` untouched.
int replaceFile(const std::string& path, const std::string& text, bool sync);

}  // namespace Base
}  // namespace Arbolite3
