#include "Log.h"

namespace pathtracer {

const XoLoggingHost::XoLoggerGlue& log() {
  static const XoLoggingHost::XoLoggerGlue channel("PathTracer");
  return channel;
}

void OnceReporter::warnOnce(const std::string& key, const std::string& text) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!seen.insert(key).second) return;
  }
  if (log().warnEnabled()) log().warn(text, __FILE__, __LINE__);
}

void OnceReporter::errorOnce(const std::string& key, const std::string& text) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!seen.insert(key).second) return;
  }
  if (log().errorEnabled()) log().error(text, __FILE__, __LINE__);
}

void OnceReporter::clear() {
  std::lock_guard<std::mutex> lock(mutex);
  seen.clear();
}

}  // namespace pathtracer
