#include "base/ProcessIdentity.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace Arbolite3 {
namespace Base {

int getProcessId() { return static_cast<int>(::getpid()); }

int getThreadId() { return static_cast<int>(::syscall(SYS_gettid)); }

}  // namespace Base
}  // namespace Arbolite3
