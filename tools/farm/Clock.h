// Wall-clock time as seconds since the epoch: comparable between the hosts of
// a farm, unlike a monotonic clock.
#pragma once

#include <chrono>

namespace Farm {

inline double wallClockSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace Farm
