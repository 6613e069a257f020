// Ids of the running process and thread, as the kernel knows them.
#pragma once

namespace Arbolite3 {
namespace Base {

int getProcessId();
// Kernel thread id (gettid), unique across the threads of all processes.
int getThreadId();

}  // namespace Base
}  // namespace Arbolite3
