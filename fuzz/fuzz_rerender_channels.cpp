// The two rerender channels as their reader threads drive them: the first
// byte picks the channel, the rest is what the peer sent before closing. A
// plug-in table of counters stands behind the real Rendering::Manager.
//
// Each read hands the callback a buffer of exactly the bytes received (the
// control channel's is a whole record long, as the transport allocates it),
// so a decoder that reads past what it was given is caught. What reaches the
// plug-in is checked against the stream framed independently here.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "KINDLET/src/RenderManager.h"
#include "KINDLET/src/RerenderControl/RerenderReadCallbacks.h"
#include "XoAttribute/Attribute.h"
#include "XoConfiguration/Configuration.h"

using Arbolite3::internal::XoAttribute::Attribute;

namespace {

struct Seen {
  std::vector<std::string> commands;  // custom commands and "pauseRerender"
  size_t updates = 0;
} seen;

int32_t ok(XoRendererPluginHandle) { return 0; }
int32_t pause(XoRendererPluginHandle) {
  seen.commands.push_back("pauseRerender");
  return 0;
}
int32_t command(XoRendererPluginHandle, const char* text) {
  // The record carries no terminator of its own: a plug-in reads at most 256.
  seen.commands.emplace_back(text, strnlen(text, sizeof(ControlCommandRecord)));
  return 0;
}
int32_t update(XoRendererPluginHandle, XoAttributeStruct* group) {
  if (group == nullptr || XoAttributeGetType(group) != kXoAttributeTypeGroup) std::abort();
  ++seen.updates;
  return 0;
}

XoRendererPluginSuite makeSuite() {
  XoRendererPluginSuite suite{};
  suite.start = suite.stop = suite.startLiveEditing = suite.stopLiveEditing = ok;
  suite.hasQueuedUpdates = suite.applyQueuedUpdates = suite.setup = suite.teardown = ok;
  suite.pauseRerender = pause;
  suite.handleControlCommand = command;
  suite.submitUpdate = update;
  return suite;
}

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz_rerender_channels: %s\n", what);
    std::abort();
  }
}

// The reader's loop: read readSize bytes or up to the end, deliver, repeat.
// Returns the number of deliveries.
size_t drive(UTIL::IPC::ReadCallback& callback, const uint8_t* data, size_t size,
             bool wholeRecordBuffer) {
  size_t at = 0, deliveries = 0;
  for (;;) {
    const size_t count = std::min(callback.readSize, size - at);
    if (count == 0) {
      callback.readFailed();
      return deliveries;
    }
    std::vector<UTIL::IPC::Byte> buffer(wholeRecordBuffer ? callback.readSize : count);
    std::memcpy(buffer.data(), data + at, count);
    at += count;
    ++deliveries;
    if (!callback.readComplete(buffer.data(), count)) return deliveries;
  }
}

void controlChannel(Rendering::Manager& manager, const uint8_t* data, size_t size) {
  // A record cut short by the end of the stream arrives in a zeroed buffer of
  // full length here, so it reads as if padded with NULs.
  std::vector<std::string> expected;
  for (size_t at = 0; at < size; at += sizeof(ControlCommandRecord)) {
    char record[sizeof(ControlCommandRecord)] = {};
    std::memcpy(record, data + at, std::min(sizeof record, size - at));
    if (record[0] == '\0') continue;
    const std::string word(record, strnlen(record, sizeof record));
    if (word.size() < sizeof record && word == "stopLiveEditing") continue;
    expected.push_back(word);
  }
  ControlReadCallback callback(nullptr, &manager);
  drive(callback, data, size, true);
  check(seen.commands == expected, "the plug-in's commands differ from the records sent");
}

void dataChannel(Rendering::Manager& manager, const uint8_t* data, size_t size) {
  size_t groups = 0, frames = 0, at = 0;
  while (size - at >= sizeof(uint64_t)) {
    uint64_t length;
    std::memcpy(&length, data + at, sizeof length);
    at += sizeof length;
    if (length == 0 || at == size) break;
    const size_t count = static_cast<size_t>(std::min<uint64_t>(length, size - at));
    const Attribute payload = Attribute::parseBinary(data + at, count);
    if (payload.isValid() && payload.getType() == Arbolite3::internal::XoAttribute::kTypeGroup) ++groups;
    ++frames;
    at += count;
  }
  DataReadCallback callback(nullptr, &manager);
  const size_t deliveries = drive(callback, data, size, false);
  check(deliveries >= 2 * frames, "a frame was not delivered");
  check(seen.updates == groups, "updates reaching the plug-in differ from the groups sent");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Arbolite3::XoConfiguration::v1::Config().set("SELVANE_LOG_LEVEL", "off");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static XoRendererPluginSuite suite = makeSuite();
  static int instance;
  seen = Seen();
  Rendering::Manager manager(&instance, &suite, "", 0, 0, 7);
  if (data[0] & 1)
    controlChannel(manager, data + 1, size - 1);
  else
    dataChannel(manager, data + 1, size - 1);
  return 0;
}
