// The script's lines for a live mode that must keep serving while it waits
// for the next one (the viewer's edits go through the registry's thread,
// which would otherwise sit in a read of the terminal). A thread of its own
// reads the lines; next() serves through `poll` until one is there.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <istream>
#include <mutex>
#include <string>
#include <thread>

namespace KindletControl {

class LineFeed {
 public:
  explicit LineFeed(std::istream& in);
  // Does not wait for a reader that sits in a read of a terminal.
  ~LineFeed();

  // The next line; false at the end of the input or once `stop` says so.
  bool next(std::string& line, const std::function<void()>& poll,
            const std::function<bool()>& stop);

 private:
  struct Shared {
    std::mutex mutex;
    std::deque<std::string> lines;
    bool ended = false;
  };
  std::shared_ptr<Shared> shared = std::make_shared<Shared>();
  std::thread reader;
};

}  // namespace KindletControl
