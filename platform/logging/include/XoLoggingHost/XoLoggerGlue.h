// Logging channels. One line per message on standard error (or appended to the
// file named by SELVANE_LOG_FILE), formatted as
//   [LEVEL Channel] text
// with LEVEL one of ERROR, WARNING, INFO, DEBUG. The threshold comes from the
// configuration key SELVANE_LOG_LEVEL ("error", "warning", "info", "debug" or
// "off"; default "info"), read when the first channel is used.
#pragma once

#include <string>

namespace XoLoggingHost {

enum class LogLevel { Off = 0, Error = 1, Warning = 2, Info = 3, Debug = 4 };

class XoLoggerGlue {
 public:
  explicit XoLoggerGlue(const std::string& channel);

  const std::string& channel() const { return channel_; }

  bool errorEnabled() const;
  bool warnEnabled() const;
  bool infoEnabled() const;
  bool debugEnabled() const;

  void error(const std::string& text, const char* sourcePath, int line) const;
  void warn(const std::string& text, const char* sourcePath, int line) const;
  void info(const std::string& text, const char* sourcePath, int line) const;
  void debug(const std::string& text, const char* sourcePath, int line) const;

  // Emits one line at `level` if that level is enabled.
  void log(LogLevel level, const std::string& text) const;

  // Current process-wide threshold, and a way to change it (tests, the Python
  // logging bridge). reloadThreshold() reads SELVANE_LOG_LEVEL again.
  static LogLevel threshold();
  static void setThreshold(LogLevel level);
  static void reloadThreshold();
  // Parses a threshold name; unknown text gives Info.
  static LogLevel parseLevel(const std::string& name);

 private:
  std::string channel_;
};

}  // namespace XoLoggingHost
