// SIGINT and SIGTERM as a descriptor that the driver polls with its other
// events, so a stop request is handled in the main loop, not in a handler.
#pragma once

#include <signal.h>

#include <chrono>

#include "base/FileDescriptor.h"

namespace Farm {

class SignalWatch {
 public:
  // Blocks the two signals in the calling thread; children are started with
  // an empty mask of their own.
  SignalWatch();
  ~SignalWatch();

  int fd() const { return fd_.get(); }
  // The signal that arrived (0 if none), consumed.
  int take();
  // Waits up to `timeout`; false when a signal arrived meanwhile.
  bool sleep(std::chrono::milliseconds timeout);
  int received() const { return received_; }

 private:
  sigset_t previous_;
  Arbolite3::Base::FileDescriptor fd_;
  int received_ = 0;
};

}  // namespace Farm
