// Keeps a set of signals blocked (or unblocked, or set as the whole mask) for
// the calling thread until restore() or destruction, whichever comes first.
#pragma once

#include <signal.h>

#include <vector>

class SignalMaskGuard {
 public:
  enum Mode { Block = 0, Unblock = 1, SetMask = 2 };

  // Any other mode changes nothing.
  SignalMaskGuard(int mode, const std::vector<int>& signals);
  ~SignalMaskGuard();
  SignalMaskGuard(const SignalMaskGuard&) = delete;
  SignalMaskGuard& operator=(const SignalMaskGuard&) = delete;

  // Puts the old mask back, once. Must run on the thread that made the guard.
  void restore();

 private:
  sigset_t oldMask;
  bool restored;
};
