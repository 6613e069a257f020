// The script's lines, read on a thread of their own, so that the controller
// keeps serving its renders (their images, their backlogs) while a person
// types the next line or a pipe has nothing to say yet.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <istream>
#include <mutex>
#include <string>
#include <thread>

namespace KindletControl {

class ScriptReader {
 public:
  // `script` must live to the end of the process: the reading thread is left
  // to end with it when the stream never does (a terminal, a pipe).
  explicit ScriptReader(std::istream& script);
  ~ScriptReader();
  ScriptReader(const ScriptReader&) = delete;
  ScriptReader& operator=(const ScriptReader&) = delete;

  // The next line, calling `serve` while none has come; false at the end.
  bool next(std::string& line, const std::function<void()>& serve);

 private:
  struct Shared {
    std::mutex mutex;
    std::deque<std::string> lines;
    bool ended = false;
  };
  std::shared_ptr<Shared> shared;
};

}  // namespace KindletControl
