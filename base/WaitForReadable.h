// Wait until one of several descriptors is readable (or at end, in error or
// invalid).
#pragma once

#include <boost/system/error_code.hpp>

namespace Arbolite3 {
namespace Base {

// Returns a ready descriptor, or -1. When several are ready the winner is
// random, so no descriptor can starve the others. A timeout below 1 is passed
// to poll as it is (negative: no limit); otherwise interruptions by signals
// don't extend the deadline. Failures: errno (system category); time-out:
// generic ETIMEDOUT. `error` may be null.
int waitForReadable(const int* descriptors, int count, int timeoutMilliseconds,
                    boost::system::error_code* error);

}  // namespace Base
}  // namespace Arbolite3
