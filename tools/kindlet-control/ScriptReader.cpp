#include "ScriptReader.h"

#include <memory>

namespace KindletControl {

ScriptReader::ScriptReader(std::istream& script) : shared(std::make_shared<Shared>()) {
  std::thread([state = shared, &script] {
    std::string line;
    while (std::getline(script, line)) {
      std::lock_guard<std::mutex> lock(state->mutex);
      state->lines.push_back(line);
    }
    std::lock_guard<std::mutex> lock(state->mutex);
    state->ended = true;
  }).detach();
}

ScriptReader::~ScriptReader() = default;

bool ScriptReader::next(std::string& line, const std::function<void()>& serve) {
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(shared->mutex);
      if (!shared->lines.empty()) {
        line = std::move(shared->lines.front());
        shared->lines.pop_front();
        return true;
      }
      if (shared->ended) return false;
    }
    serve();
  }
}

}  // namespace KindletControl
