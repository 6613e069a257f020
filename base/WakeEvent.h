// An event on an eventfd: one thread signals, another waits (also in poll, via
// descriptor()). Signals add up; a wait consumes all of them at once.
#pragma once

namespace Arbolite3 {
namespace Base {

class WakeEvent {
 public:
  // Throws boost::system::system_error when the eventfd can't be made.
  WakeEvent();
  ~WakeEvent();
  WakeEvent(const WakeEvent&) = delete;
  WakeEvent& operator=(const WakeEvent&) = delete;

  // Both repeat on EINTR and throw boost::system::system_error otherwise.
  void signal();
  // Blocks until signalled, then resets the count.
  void wait();

  int descriptor() const { return fd_; }

 private:
  int fd_;
};

}  // namespace Base
}  // namespace Arbolite3
