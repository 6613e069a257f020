// The path tracer's log channel, and a reporter that names each problem once
// however often a scene rebuild or a pass runs into it.
#pragma once

#include <mutex>
#include <set>
#include <string>

#include "XoLoggingHost/XoLoggerGlue.h"

namespace pathtracer {

const XoLoggingHost::XoLoggerGlue& log();

class OnceReporter {
 public:
  // Logs "text" at warning level the first time `key` is seen.
  void warnOnce(const std::string& key, const std::string& text);
  // The same at error level.
  void errorOnce(const std::string& key, const std::string& text);
  void clear();

 private:
  std::mutex mutex;
  std::set<std::string> seen;
};

}  // namespace pathtracer

#define PT_LOG(level, enabled, expr)                          \
  do {                                                        \
    if (::pathtracer::log().enabled()) {                      \
      std::ostringstream pt_log_text;                         \
      pt_log_text << expr;                                    \
      ::pathtracer::log().level(pt_log_text.str(), __FILE__, __LINE__); \
    }                                                         \
  } while (0)
#define PT_ERROR(expr) PT_LOG(error, errorEnabled, expr)
#define PT_WARN(expr) PT_LOG(warn, warnEnabled, expr)
#define PT_INFO(expr) PT_LOG(info, infoEnabled, expr)
#define PT_DEBUG(expr) PT_LOG(debug, debugEnabled, expr)
