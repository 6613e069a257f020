#include "XoLoggingHost/XoLoggerGlue.h"

#include <atomic>
#include <cstdio>
#include <mutex>

#include "XoConfiguration/Configuration.h"

namespace XoLoggingHost {
namespace {

std::atomic<int> g_threshold{-1};  // -1: not read yet
std::mutex g_outputMutex;

const char* levelName(LogLevel level) {
  switch (level) {
    case LogLevel::Error: return "ERROR";
    case LogLevel::Warning: return "WARNING";
    case LogLevel::Info: return "INFO";
    case LogLevel::Debug: return "DEBUG";
    default: return "OFF";
  }
}

FILE* destination() {
  // Chosen once; a log file that cannot be opened falls back to stderr.
  static FILE* out = [] {
    std::string path =
        Arbolite3::XoConfiguration::v1::Config().get("SELVANE_LOG_FILE");
    if (!path.empty()) {
      if (FILE* f = std::fopen(path.c_str(), "a")) {
        setvbuf(f, nullptr, _IOLBF, 0);
        return f;
      }
    }
    return stderr;
  }();
  return out;
}

}  // namespace

XoLoggerGlue::XoLoggerGlue(const std::string& channel) : channel_(channel) {}

LogLevel XoLoggerGlue::parseLevel(const std::string& name) {
  if (name == "off") return LogLevel::Off;
  if (name == "error") return LogLevel::Error;
  if (name == "warning" || name == "warn") return LogLevel::Warning;
  if (name == "debug") return LogLevel::Debug;
  return LogLevel::Info;
}

LogLevel XoLoggerGlue::threshold() {
  int value = g_threshold.load(std::memory_order_relaxed);
  if (value < 0) {
    reloadThreshold();
    value = g_threshold.load(std::memory_order_relaxed);
  }
  return static_cast<LogLevel>(value);
}

void XoLoggerGlue::setThreshold(LogLevel level) {
  g_threshold.store(static_cast<int>(level), std::memory_order_relaxed);
}

void XoLoggerGlue::reloadThreshold() {
  setThreshold(parseLevel(
      Arbolite3::XoConfiguration::v1::Config().get("SELVANE_LOG_LEVEL")));
}

bool XoLoggerGlue::errorEnabled() const { return threshold() >= LogLevel::Error; }
bool XoLoggerGlue::warnEnabled() const { return threshold() >= LogLevel::Warning; }
bool XoLoggerGlue::infoEnabled() const { return threshold() >= LogLevel::Info; }
bool XoLoggerGlue::debugEnabled() const { return threshold() >= LogLevel::Debug; }

void XoLoggerGlue::log(LogLevel level, const std::string& text) const {
  if (level == LogLevel::Off || threshold() < level) return;
  std::string line;
  line.reserve(text.size() + channel_.size() + 12);
  line += '[';
  line += levelName(level);
  line += ' ';
  line += channel_;
  line += "] ";
  line += text;
  line += '\n';
  FILE* out = destination();
  std::lock_guard<std::mutex> lock(g_outputMutex);
  std::fwrite(line.data(), 1, line.size(), out);
  std::fflush(out);
}

void XoLoggerGlue::error(const std::string& text, const char*, int) const {
  log(LogLevel::Error, text);
}
void XoLoggerGlue::warn(const std::string& text, const char*, int) const {
  log(LogLevel::Warning, text);
}
void XoLoggerGlue::info(const std::string& text, const char*, int) const {
  log(LogLevel::Info, text);
}
void XoLoggerGlue::debug(const std::string& text, const char*, int) const {
  log(LogLevel::Debug, text);
}

}  // namespace XoLoggingHost
