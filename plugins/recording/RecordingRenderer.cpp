// A renderer that renders nothing and records every call it receives, one
// line each, so that tests can check what the process did and on which thread.
// The line format is documented in README.md beside this file.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "XoRendererPlugin/XoRendererPluginClass.h"

namespace {

// Control command records are at most this long and may lack a terminator.
constexpr size_t kCommandRecordSize = 256;

long threadId() { return static_cast<long>(syscall(SYS_gettid)); }

void appendEscaped(std::string& out, const char* text, size_t length) {
  static const char kHex[] = "0123456789abcdef";
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7f) {
          out += "\\x";
          out += kHex[c >> 4];
          out += kHex[c & 0xf];
        } else {
          out += static_cast<char>(c);
        }
    }
  }
}

template <typename T>
void appendNumber(std::string& out, T value) {
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

template <typename T>
void appendValues(std::string& out, const T* values, size_t count) {
  if (count == 1) {
    appendNumber(out, values[0]);
    return;
  }
  out += '[';
  for (size_t i = 0; i < count; ++i) {
    if (i) out += ' ';
    appendNumber(out, values[i]);
  }
  out += ']';
}

// One-line, deterministic text of an attribute: groups as {name=value,...},
// numbers in shortest round-trip form, strings quoted and escaped, several
// values as [a b c].
void describe(std::string& out, const XoAttributeStruct* attr) {
  const size_t n = XoAttributeGetNumberOfValues(attr);
  switch (XoAttributeGetType(attr)) {
    case kXoAttributeTypeNull: out += "null"; return;
    case kXoAttributeTypeInt: appendValues(out, XoAttributeGetIntValues(attr), n); return;
    case kXoAttributeTypeFloat: appendValues(out, XoAttributeGetFloatValues(attr), n); return;
    case kXoAttributeTypeDouble: appendValues(out, XoAttributeGetDoubleValues(attr), n); return;
    case kXoAttributeTypeString: {
      if (n != 1) out += '[';
      for (size_t i = 0; i < n; ++i) {
        if (i) out += ' ';
        const char* s = XoAttributeGetStringValue(attr, i);
        out += '"';
        if (s) appendEscaped(out, s, std::strlen(s));
        out += '"';
      }
      if (n != 1) out += ']';
      return;
    }
    case kXoAttributeTypeGroup: {
      out += '{';
      const size_t children = XoAttributeGetNumberOfChildren(attr);
      for (size_t i = 0; i < children; ++i) {
        if (i) out += ',';
        const char* name = XoAttributeGetChildName(attr, i);
        if (name) appendEscaped(out, name, std::strlen(name));
        out += '=';
        describe(out, XoAttributeGetChildByIndex(attr, i));
      }
      out += '}';
      return;
    }
    default: out += "invalid"; return;
  }
}

// "<full name>(<child>,<child>...)", or "-" without a scene.
std::string describeScene(XoSgIteratorStruct* iterator) {
  if (iterator == nullptr) return "-";
  std::string out = XoSgIteratorGetFullName(iterator);
  out += '(';
  XoSgIteratorStruct* child = XoSgIteratorGetFirstChild(iterator);
  for (bool first = true; child != nullptr; first = false) {
    if (!first) out += ',';
    out += XoSgIteratorGetName(child);
    XoSgIteratorStruct* next = XoSgIteratorGetNextSibling(child);
    XoSgIteratorRelease(child);
    child = next;
  }
  out += ')';
  return out;
}

std::string textArgument(XoAttributeStruct* arguments, const char* name) {
  const XoAttributeStruct* child = XoAttributeGetChildByName(arguments, name);
  if (XoAttributeGetType(child) == kXoAttributeTypeString) {
    const char* value = XoAttributeGetStringValue(child, 0);
    return value ? value : "";
  }
  if (XoAttributeGetType(child) == kXoAttributeTypeInt &&
      XoAttributeGetNumberOfValues(child) > 0)
    return std::to_string(XoAttributeGetIntValues(child)[0]);
  return "";
}

long numberArgument(XoAttributeStruct* arguments, const char* name) {
  const std::string text = textArgument(arguments, name);
  return text.empty() ? 0 : std::strtol(text.c_str(), nullptr, 10);
}

void sleepMs(long ms) {
  if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

class RecordingRenderer : public Rendering::XoRendererPluginBase {
 public:
  RecordingRenderer(XoSgIteratorStruct* iterator, XoAttributeStruct* arguments)
      : setupResult_(static_cast<int32_t>(numberArgument(arguments, "setupResult"))),
        applyDelayMs_(numberArgument(arguments, "applyDelayMs")),
        startDelayMs_(numberArgument(arguments, "startDelayMs")),
        countOnly_(textArgument(arguments, "countOnly") == "1") {
    std::string path = textArgument(arguments, "recordFile");
    if (path.empty()) {
      const char* fromEnvironment = std::getenv("KINDLET_RECORD_FILE");
      if (fromEnvironment) path = fromEnvironment;
    }
    if (!path.empty()) fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    iterator_ = iterator;
    XoSgIteratorRetain(iterator_);

    std::string details = describeScene(iterator);
    details += ' ';
    describe(details, arguments);
    record("create", details);
  }

  ~RecordingRenderer() {
    size_t pending;
    {
      std::lock_guard<std::mutex> lock(queueMutex_);
      pending = queue_.size();
      for (XoAttributeStruct* update : queue_) XoAttributeRelease(update);
      queue_.clear();
    }
    record("destroy", std::to_string(pending));
    XoSgIteratorRelease(iterator_);
    if (fd_ >= 0) ::close(fd_);
  }

  int32_t setup() {
    record("setup", std::to_string(setupResult_));
    return setupResult_;
  }
  int32_t teardown() {
    record("teardown");
    if (countOnly_) record("submitUpdateCount", std::to_string(submitted_.load()));
    return 0;
  }
  int32_t start() {
    record("start");
    sleepMs(startDelayMs_);
    return 0;
  }
  int32_t stop() { return record("stop"); }
  int32_t startLiveEditing() { return record("startLiveEditing"); }
  int32_t stopLiveEditing() { return record("stopLiveEditing"); }
  int32_t pauseRerender() { return record("pauseRerender"); }

  int32_t handleControlCommand(const char* command) {
    std::string text;
    if (command) appendEscaped(text, command, strnlen(command, kCommandRecordSize));
    return record("handleControlCommand", text);
  }

  int32_t setSceneIterator(XoSgIteratorStruct* iterator) {
    record("setSceneIterator", describeScene(iterator));
    XoSgIteratorRetain(iterator);
    std::lock_guard<std::mutex> lock(queueMutex_);
    std::swap(iterator_, iterator);
    XoSgIteratorRelease(iterator);
    return 0;
  }

  int32_t submitUpdate(XoAttributeStruct* update) {
    if (countOnly_) {
      submitted_.fetch_add(1, std::memory_order_relaxed);
      return 0;
    }
    // The line goes out before the update is queued, so it always precedes
    // the applyQueuedUpdates line that counts it.
    std::string text;
    describe(text, update);
    record("submitUpdate", text);
    XoAttributeRetain(update);
    std::lock_guard<std::mutex> lock(queueMutex_);
    queue_.push_back(update);
    return 0;
  }

  bool hasQueuedUpdates() {
    bool queued;
    {
      std::lock_guard<std::mutex> lock(queueMutex_);
      queued = !queue_.empty();
    }
    record("hasQueuedUpdates", queued ? "1" : "0");
    return queued;
  }

  int32_t applyQueuedUpdates() {
    std::deque<XoAttributeStruct*> batch;
    {
      std::lock_guard<std::mutex> lock(queueMutex_);
      batch.swap(queue_);
    }
    record("applyQueuedUpdates", std::to_string(batch.size()));
    sleepMs(applyDelayMs_);  // stands for the work of applying
    for (XoAttributeStruct* update : batch) XoAttributeRelease(update);
    return 0;
  }

 private:
  // One write per line on an O_APPEND descriptor: lines from several threads
  // never interleave.
  int32_t record(const char* slot, const std::string& details = std::string()) {
    if (fd_ < 0) return 0;
    std::string line = slot;
    line += ' ';
    line += std::to_string(threadId());
    if (!details.empty()) {
      line += ' ';
      line += details;
    }
    line += '\n';
    ssize_t written = ::write(fd_, line.data(), line.size());
    (void)written;  // nowhere to report a failed record
    return 0;
  }

  int fd_ = -1;
  const int32_t setupResult_;
  const long applyDelayMs_;
  const long startDelayMs_;
  const bool countOnly_;
  std::atomic<unsigned long> submitted_{0};

  std::mutex queueMutex_;
  std::deque<XoAttributeStruct*> queue_;
  XoSgIteratorStruct* iterator_ = nullptr;
};

}  // namespace

XO_DEFINE_RENDERER_PLUGIN("recording",
                          Rendering::XoRendererPluginSuiteFor<RecordingRenderer>(), NULL)
