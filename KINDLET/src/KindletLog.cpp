#include "KindletLog.h"

XoLoggingHost::XoLoggerGlue& kindletLog() {
  // Never destroyed: reader threads may log while the process ends.
  static XoLoggingHost::XoLoggerGlue* channel = new XoLoggingHost::XoLoggerGlue("Kindlet");
  return *channel;
}
