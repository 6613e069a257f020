#include "LineFeed.h"

#include <memory>

namespace KindletControl {

LineFeed::LineFeed(std::istream& in) {
  reader = std::thread([&in, shared = shared] {
    std::string line;
    while (std::getline(in, line)) {
      std::lock_guard<std::mutex> lock(shared->mutex);
      shared->lines.push_back(line);
    }
    std::lock_guard<std::mutex> lock(shared->mutex);
    shared->ended = true;
  });
}

LineFeed::~LineFeed() {
  bool ended;
  {
    std::lock_guard<std::mutex> lock(shared->mutex);
    ended = shared->ended;
  }
  if (ended) reader.join();
  else reader.detach();  // it keeps only the shared state alive
}

bool LineFeed::next(std::string& line, const std::function<void()>& poll,
                    const std::function<bool()>& stop) {
  for (;;) {
    if (stop()) return false;
    {
      std::lock_guard<std::mutex> lock(shared->mutex);
      if (!shared->lines.empty()) {
        line = std::move(shared->lines.front());
        shared->lines.pop_front();
        return true;
      }
      if (shared->ended) return false;
    }
    poll();
  }
}

}  // namespace KindletControl
