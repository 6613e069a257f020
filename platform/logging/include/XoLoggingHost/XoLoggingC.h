/* C entry into the process log, for callers that cannot use the C++ class:
 * the Python logging bridge (through ctypes) and C plug-ins. */
#ifndef XOLOGGINGHOST_XOLOGGINGC_H
#define XOLOGGINGHOST_XOLOGGINGC_H

#ifdef __cplusplus
extern "C" {
#endif

/* Levels, as in XoLoggingHost::LogLevel. */
enum {
  kXoLogLevelOff = 0,
  kXoLogLevelError = 1,
  kXoLogLevelWarning = 2,
  kXoLogLevelInfo = 3,
  kXoLogLevelDebug = 4
};

/* Writes one line "[LEVEL channel] text" if `level` is enabled. A null channel
 * or text, or a level outside Error..Debug, writes nothing. */
void XoLoggingEmit(const char* channel, int level, const char* text);

/* The current process-wide threshold (one of the levels above). */
int XoLoggingGetThreshold(void);

#ifdef __cplusplus
}
#endif

#endif
