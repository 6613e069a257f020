#include "SignalMaskGuard.h"

#include <pthread.h>

SignalMaskGuard::SignalMaskGuard(int mode, const std::vector<int>& signals)
    : restored(false) {
  sigemptyset(&oldMask);
  sigset_t set;
  sigemptyset(&set);
  for (int signal : signals) sigaddset(&set, signal);
  int how;
  switch (mode) {
    case Block: how = SIG_BLOCK; break;
    case Unblock: how = SIG_UNBLOCK; break;
    case SetMask: how = SIG_SETMASK; break;
    default:
      // Nothing was changed, so there is nothing to put back: restoring the
      // empty oldMask would unblock every signal of the thread.
      restored = true;
      return;
  }
  pthread_sigmask(how, &set, &oldMask);
}

SignalMaskGuard::~SignalMaskGuard() {
  if (!restored) pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
}

void SignalMaskGuard::restore() {
  if (restored) return;
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  restored = true;
}
