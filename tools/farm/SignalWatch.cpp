#include "SignalWatch.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <stdexcept>

#include "base/RetryingIO.h"
#include "base/WaitForReadable.h"

namespace Farm {

SignalWatch::SignalWatch() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, &previous_);
  fd_.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd_) throw std::runtime_error("signalfd failed");
}

SignalWatch::~SignalWatch() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

int SignalWatch::take() {
  signalfd_siginfo info;
  if (Arbolite3::Base::readRetrying(fd_.get(), &info, sizeof info, nullptr) != sizeof info) return 0;
  received_ = static_cast<int>(info.ssi_signo);
  return received_;
}

bool SignalWatch::sleep(std::chrono::milliseconds timeout) {
  const int fd = fd_.get();
  if (Arbolite3::Base::waitForReadable(&fd, 1, static_cast<int>(timeout.count()), nullptr) < 0) return true;
  return take() == 0;
}

}  // namespace Farm
