#include "ViewerHub.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

namespace KindletControl {

ViewerHub::ViewerHub() : eventFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ViewerHub::~ViewerHub() {
  if (eventFd >= 0) ::close(eventFd);
}

void ViewerHub::ring() {
  const uint64_t one = 1;
  if (eventFd >= 0 && ::write(eventFd, &one, sizeof one) < 0) {
    // Full counter: the descriptor is readable anyway.
  }
}

void ViewerHub::setWake(std::function<void()> wake_) {
  std::lock_guard<std::mutex> lock(mutex);
  wake = std::move(wake_);
}

void ViewerHub::wakeLocked(std::unique_lock<std::mutex>& lock) {
  if (woken || !wake) return;
  woken = true;
  std::function<void()> call = wake;
  lock.unlock();
  call();
}

void ViewerHub::publish(const std::string& key, Frame frame) {
  std::unique_lock<std::mutex> lock(mutex);
  frames[key] = std::move(frame);
  wakeLocked(lock);
}

void ViewerHub::setRenders(std::string json) {
  std::unique_lock<std::mutex> lock(mutex);
  if (json == renders) return;
  renders = std::move(json);
  rendersChanged = true;
  wakeLocked(lock);
}

std::map<std::string, Frame> ViewerHub::takeFrames() {
  std::lock_guard<std::mutex> lock(mutex);
  // Taking frames re-arms the wake-up: what comes after needs a new one.
  woken = false;
  std::map<std::string, Frame> taken;
  taken.swap(frames);
  return taken;
}

std::string ViewerHub::takeRenders() {
  std::lock_guard<std::mutex> lock(mutex);
  if (!rendersChanged) return std::string();
  rendersChanged = false;
  return renders;
}

void ViewerHub::push(ViewerEdit edit) {
  ViewerEdit replaced;
  bool didReplace = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!edit.coalesceKey.empty()) {
      for (ViewerEdit& waiting : edits) {
        if (waiting.coalesceKey != edit.coalesceKey) continue;
        replaced = std::move(waiting);
        waiting = std::move(edit);
        didReplace = true;
        break;
      }
    }
    if (!didReplace) edits.push_back(std::move(edit));
  }
  ring();
  if (didReplace && replaced.done) replaced.done({});
}

std::vector<ViewerEdit> ViewerHub::takeEdits() {
  std::lock_guard<std::mutex> lock(mutex);
  uint64_t count = 0;
  if (eventFd >= 0 && ::read(eventFd, &count, sizeof count) < 0) {
    // Nothing rang: nothing to clear.
  }
  std::vector<ViewerEdit> taken(std::make_move_iterator(edits.begin()),
                                std::make_move_iterator(edits.end()));
  edits.clear();
  return taken;
}

void ViewerHub::requestStop() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  ring();
}

bool ViewerHub::stopRequested() const {
  std::lock_guard<std::mutex> lock(mutex);
  return stop;
}

}  // namespace KindletControl
