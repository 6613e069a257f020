#include "ShutdownRegistry.h"

#include <algorithm>
#include <tuple>

#include <boost/thread/exceptions.hpp>

namespace {
ShutdownRegistry* g_registry = nullptr;
}

ShutdownRegistry::ShutdownRegistry() : nextSequence(0) {
  int result = pthread_mutex_init(&mutex, nullptr);
  if (result != 0) {
    throw (boost::thread_resource_error(
        result, "ShutdownRegistry: pthread_mutex_init failed"));
  }
  g_registry = this;
}

ShutdownRegistry::~ShutdownRegistry() {
  runCallbacks();
  g_registry = nullptr;
  pthread_mutex_destroy(&mutex);
}

ShutdownRegistry* ShutdownRegistry::instance() { return g_registry; }

void ShutdownRegistry::lock() {
  int result = pthread_mutex_lock(&mutex);
  if (result != 0) {
    throw (boost::lock_error(result, "ShutdownRegistry: lock failed"));
  }
}

void ShutdownRegistry::unlock() { pthread_mutex_unlock(&mutex); }

int32_t ShutdownRegistry::registerCallback(Callback callback, void* argument) {
  lock();
  int32_t index = -1;
  while (!freeIndices.empty()) {
    int32_t candidate = freeIndices.back();
    freeIndices.pop_back();
    if (candidate >= 0 && static_cast<size_t>(candidate) < slots.size() &&
        slots[candidate].isFree()) {
      index = candidate;
      break;
    }
  }
  if (index < 0) {
    index = static_cast<int32_t>(slots.size());
    slots.push_back(Slot{kFree, nullptr, nullptr});
  }
  slots[index] = Slot{nextSequence++, callback, argument};
  unlock();
  return index;
}

void ShutdownRegistry::unregisterCallback(int32_t index) {
  lock();
  if (index >= 0 && static_cast<size_t>(index) < slots.size() && !slots[index].isFree()) {
    slots[index] = Slot{kFree, nullptr, nullptr};
    freeIndices.push_back(index);
  }
  unlock();
}

void ShutdownRegistry::runCallbacks() {
  lock();
  std::vector<Slot> copy = slots;
  for (Slot& slot : slots) slot = Slot{kFree, nullptr, nullptr};
  unlock();

  std::vector<int32_t> used;
  for (size_t i = 0; i < copy.size(); ++i) {
    if (!copy[i].isFree()) used.push_back(static_cast<int32_t>(i));
  }
  std::sort(copy.begin(), copy.end(), [](const Slot& a, const Slot& b) {
    return std::make_tuple(a.sequence, reinterpret_cast<uintptr_t>(a.callback),
                           reinterpret_cast<uintptr_t>(a.argument)) >
           std::make_tuple(b.sequence, reinterpret_cast<uintptr_t>(b.callback),
                           reinterpret_cast<uintptr_t>(b.argument));
  });
  for (const Slot& slot : copy) {
    if (!slot.isFree()) slot.callback(slot.argument);
  }

  lock();
  freeIndices.insert(freeIndices.end(), used.begin(), used.end());
  unlock();
}
