// Connected pairs of descriptors. Both throw boost::system::system_error and
// change their outputs only on success, closing what the outputs held before.
#pragma once

#include "base/FileDescriptor.h"

namespace Arbolite3 {
namespace Base {

// A pipe whose ends are both close-on-exec.
void createPipe(FileDescriptor& readEnd, FileDescriptor& writeEnd);
// A connected AF_UNIX stream pair; the ends stay inheritable.
void createSocketPair(FileDescriptor& first, FileDescriptor& second);

}  // namespace Base
}  // namespace Arbolite3
