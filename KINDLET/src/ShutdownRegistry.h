// The one place where code anywhere in the process asks for work to run when
// the entry function ends: callbacks run newest first, inside the entry
// function's teardown, while every static is still alive.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <vector>

class ShutdownRegistry {
 public:
  using Callback = void (*)(void* argument);

  // Raises boost::thread_resource_error when the mutex cannot be made.
  ShutdownRegistry();
  // Runs the callbacks; an exception out of one ends the process.
  ~ShutdownRegistry();
  ShutdownRegistry(const ShutdownRegistry&) = delete;
  ShutdownRegistry& operator=(const ShutdownRegistry&) = delete;

  // The live registry, or null when none exists.
  static ShutdownRegistry* instance();

  // Safe from any thread; returns the slot index.
  int32_t registerCallback(Callback callback, void* argument);
  void unregisterCallback(int32_t index);
  // Runs and clears everything registered so far, newest first. A callback
  // may register or unregister; what it registers is not run by this pass.
  void runCallbacks();

 private:
  struct Slot {
    uint64_t sequence;
    Callback callback;
    void* argument;
    bool isFree() const { return sequence == kFree && callback == nullptr && argument == nullptr; }
  };
  static constexpr uint64_t kFree = ~uint64_t(0);

  void lock();
  void unlock();

  std::vector<Slot> slots;
  std::vector<int32_t> freeIndices;
  uint64_t nextSequence;
  pthread_mutex_t mutex;
};
