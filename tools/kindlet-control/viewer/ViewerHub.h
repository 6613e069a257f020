// What the registry's thread and the viewer's thread hand each other. The
// registry socket belongs to one thread, and the page must never wait for
// the render nor the render for the page, so:
//   - frames go to the viewer newest-wins: a frame of an image replaces the
//     one of the same image that the viewer has not taken yet;
//   - edits from the page wait in a queue that the registry's poll loop
//     drains; a camera edit replaces the camera edit of the same render that
//     still waits, so a drag never leaves a backlog of stale positions.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace KindletControl {

using Frame = std::shared_ptr<const std::string>;

struct ViewerEdit {
  std::string message;         // the registry message to send (update or command)
  bool hasTarget = false;      // false: every render
  long target = 0;             // the sequence ID it goes to
  bool isUpdate = true;        // counts toward the renders' scene states
  std::string coalesceKey;     // non-empty: replaces a waiting edit with the same key
  // Called on the registry's thread once sent, with the scene state each
  // render will reach ({sequenceID: state}); with an empty map when replaced
  // or when no render took it.
  std::function<void(const std::map<long, uint64_t>& states)> done;
};

class ViewerHub {
 public:
  ViewerHub();
  ~ViewerHub();
  ViewerHub(const ViewerHub&) = delete;
  ViewerHub& operator=(const ViewerHub&) = delete;

  // `wake` is called (on the registry's thread) when frames or the renders'
  // description wait and the viewer has not been woken for them yet.
  void setWake(std::function<void()> wake);

  // Registry's thread.
  void publish(const std::string& key, Frame frame);
  void setRenders(std::string json);
  // Moves the waiting edits out, oldest first.
  std::vector<ViewerEdit> takeEdits();
  // Readable while edits wait (or a stop was asked for): the registry's poll
  // wakes on it, so an edit does not wait for the poll's time-out.
  int editFd() const { return eventFd; }
  bool stopRequested() const;

  // Viewer's thread.
  std::map<std::string, Frame> takeFrames();
  // The renders' description when it changed since the last call, else "".
  std::string takeRenders();
  void push(ViewerEdit edit);
  void requestStop();

 private:
  void wakeLocked(std::unique_lock<std::mutex>& lock);
  void ring();

  int eventFd = -1;
  mutable std::mutex mutex;
  std::function<void()> wake;
  bool woken = false;
  std::map<std::string, Frame> frames;
  std::string renders;
  bool rendersChanged = false;
  std::deque<ViewerEdit> edits;
  bool stop = false;
};

}  // namespace KindletControl
