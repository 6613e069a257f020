#include "XoLoggingHost/XoLoggingC.h"

#include <exception>
#include <string>

#include "XoLoggingHost/XoLoggerGlue.h"

extern "C" void XoLoggingEmit(const char* channel, int level, const char* text) {
  if (channel == nullptr || text == nullptr) return;
  if (level < kXoLogLevelError || level > kXoLogLevelDebug) return;
  // Nothing may unwind into a C or ctypes caller.
  try {
    XoLoggingHost::XoLoggerGlue(channel).log(static_cast<XoLoggingHost::LogLevel>(level), text);
  } catch (const std::exception&) {
  }
}

extern "C" int XoLoggingGetThreshold(void) {
  return static_cast<int>(XoLoggingHost::XoLoggerGlue::threshold());
}
