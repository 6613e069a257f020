// Many frames in a row through the data channel, written in pieces of odd
// sizes: nothing may be lost, doubled or reordered.
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "KINDLET/src/RenderManager.h"
#include "KINDLET/src/RerenderControl/RerenderIPC.h"
#include "KindletTestSupport.h"
#include "XoAttribute/Attribute.h"

using namespace Arbolite3::internal::XoAttribute;

extern "C" const char* __lsan_default_suppressions() {
  return "leak:RerenderIPC::connectData\n";
}

using kindlettest::LocalListener;
using kindlettest::sendAll;

namespace {

std::mutex mutex;
std::vector<std::pair<int32_t, size_t>> received;  // (number, padding length)

int32_t submitUpdate(XoRendererPluginHandle, XoAttributeStruct* handle) {
  const GroupAttribute update(Attribute::fromHandle(handle));
  std::lock_guard<std::mutex> lock(mutex);
  received.emplace_back(IntAttribute(update.getChildByName("n")).getValue(-1),
                        StringAttribute(update.getChildByName("pad")).getValue().size());
  return 0;
}

// Mostly small frames, with some that force the reader to move bytes within
// its buffer or to read past it.
size_t paddingOf(int32_t n) {
  if (n % 1000 == 999) return 70000;
  if (n % 997 == 5) return 40000;
  return static_cast<size_t>(n) * 7919 % 200;
}

// Polls `done` for up to a minute (sanitizer builds on a busy machine).
void waitUntil(const std::function<bool()>& done) {
  for (int i = 0; i < 6000 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

}  // namespace

TEST(DataChannelBurst, HundredThousandFramesArriveWholeAndInOrder) {
  const int32_t frames = 100000;
  XoRendererPluginSuite suite = {};
  suite.submitUpdate = submitUpdate;
  Rendering::Manager manager(&suite, &suite, "", 0, 0, 0);
  LocalListener listener;
  RerenderIPC channel;
  ASSERT_EQ(channel.connectData(&manager, "127.0.0.1", listener.port()), 0);
  Arbolite3::Base::FileDescriptor peer = listener.accept();

  std::string stream;
  for (int32_t n = 0; n < frames; ++n) {
    GroupBuilder builder;
    builder.set("n", IntAttribute(n));
    builder.set("pad", StringAttribute(std::string(paddingOf(n), 'p')));
    const std::string payload = builder.build().getBinary();
    const uint64_t length = payload.size();
    stream.append(reinterpret_cast<const char*>(&length), sizeof length).append(payload);
  }
  // Writes of odd sizes, so that receives end anywhere in a frame.
  for (size_t at = 0, piece = 1; at < stream.size(); at += piece, piece = piece * 31 % 9973 + 1)
    sendAll(peer.get(), stream.data() + at, std::min(piece, stream.size() - at));
  peer.reset();  // the reader ends at the end of the stream

  waitUntil([&] {
    std::lock_guard<std::mutex> lock(mutex);
    return received.size() >= static_cast<size_t>(frames);
  });
  channel.disconnect();
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(received.size(), static_cast<size_t>(frames));
  for (int32_t n = 0; n < frames; ++n)
    ASSERT_EQ(received[n], std::make_pair(n, paddingOf(n))) << "frame " << n;
}
