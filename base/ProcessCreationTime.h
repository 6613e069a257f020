// Identity of a process beyond its PID: the time it was created, so that a
// reused PID can be told apart from the process that held it before.
#pragma once

#include <cstdint>

#include <boost/system/error_code.hpp>

namespace Arbolite3 {
namespace Base {

// Creation time of process `pid` in microseconds since boot (kernel clock-tick
// resolution), or -1 on failure. Only meaningful when compared for equality
// with another value from this function on the same machine.
//
// Errors (`error` may be null; it is cleared on entry):
//   generic no_such_process (3)        no /proc entry, or a zombie or dead task
//   generic operation_not_supported (95) the stat line has fewer than 22 fields
//   system category errno              any other open or read failure
int64_t getProcessCreationTime(int pid, boost::system::error_code* error);

}  // namespace Base
}  // namespace Arbolite3
