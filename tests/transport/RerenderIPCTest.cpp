#include <netinet/in.h>
#include <netinet/tcp.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "KINDLET/src/RenderManager.h"
#include "KINDLET/src/RerenderControl/RerenderIPC.h"
#include "KindletTestSupport.h"
#include "RecordingSuite.h"
#include "UTIL/src/Exceptions.h"
#include "XoAttribute/Attribute.h"
#include "XoConfiguration/Configuration.h"

using Arbolite3::Base::FileDescriptor;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::GroupBuilder;
using Arbolite3::internal::XoAttribute::StringAttribute;
using Arbolite3::XoConfiguration::v1::Config;

// Leak checking of sanitizer builds: what the channels allocate is never
// freed by design, and the live-render tests leave their Manager to the
// readers that render() started.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:RerenderIPC::connectControl\nleak:RerenderIPC::connectData\n"
         "leak:RerenderLiveRender_\n";
}

// The Manager's live-render state is a plain integer shared between threads
// by design; these two functions are its only readers and writers.
extern "C" const char* __tsan_default_suppressions() {
  return "race:Rendering::Manager::loadLiveRenderState\n"
         "race:Rendering::Manager::storeLiveRenderState\n";
}

using kindlettest::LocalListener;
using kindlettest::resetConnection;
using kindlettest::sendAll;

namespace {

GroupAttribute update(const std::string& name, const std::string& value) {
  GroupBuilder builder;
  builder.set(name, StringAttribute(value));
  return builder.build();
}

std::string frame(const std::string& payload) { return kindlettest::dataFrame(payload); }
std::string frame(const GroupAttribute& group) { return frame(group.getBinary()); }

std::string record(const std::string& text) { return kindlettest::controlRecord(text); }

std::string submitted(const GroupAttribute& group) { return "submitUpdate " + group.getXML(); }

// Both channels of one RerenderIPC pair connected to local listeners, with
// the real Manager behind them. The readers are stopped before the Manager
// goes, since nothing else ties their lifetimes together.
class RerenderChannels : public testing::Test {
 protected:
  void SetUp() override { recording::reset(); }
  void TearDown() override {
    control.disconnect();
    data.disconnect();
  }

  void connectBoth() {
    ASSERT_EQ(control.connectControl(&manager, "127.0.0.1", controlListener.port()), 0);
    ASSERT_EQ(data.connectData(&manager, "127.0.0.1", dataListener.port()), 0);
    controlPeer = controlListener.accept();
    dataPeer = dataListener.accept();
  }

  // Waits for `count` submitted updates, then a little more to catch extras.
  std::vector<std::string> updatesAfter(
      size_t count, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    recording::waitFor([&](const std::vector<std::string>& calls) {
      size_t updates = 0;
      for (const std::string& call : calls) updates += call.rfind("submitUpdate ", 0) == 0;
      return updates >= count;
    }, limit);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return recording::callsOf("submitUpdate");
  }

  LocalListener controlListener, dataListener;
  Rendering::Manager manager{recording::handle(), recording::suite(), "127.0.0.1",
                             controlListener.port(), dataListener.port(), 7};
  RerenderIPC control, data;
  FileDescriptor controlPeer, dataPeer;
};

}  // namespace

TEST_F(RerenderChannels, ControlRecordsAreDeliveredWhole) {
  connectBoth();
  std::string stream = record("hello plug-in") + std::string(256, '\0') + record("pauseRerender") +
                       record("stopLiveEditingNow");
  std::string last = record(std::string(255, 'L'));
  sendAll(controlPeer.get(), stream + last);
  ASSERT_TRUE(recording::waitFor(
      [](const std::vector<std::string>& calls) { return calls.size() >= 4; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  // The all-zero record has no effect; only the exact word is a known command.
  EXPECT_EQ(recording::calls(),
            (std::vector<std::string>{"handleControlCommand hello plug-in", "pauseRerender",
                                      "handleControlCommand stopLiveEditingNow",
                                      "handleControlCommand " + std::string(255, 'L')}));
}

TEST_F(RerenderChannels, FramesAreSplitByTheirHeadersNotBySegments) {
  connectBoth();
  const GroupAttribute a = update("a", "1"), b = update("b", "2"), c = update("c", "33");
  sendAll(dataPeer.get(), frame(a) + frame(b));  // one segment, two frames

  // One frame dribbled out a byte at a time, each byte its own segment.
  const int one = 1;
  ::setsockopt(dataPeer.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  for (char byte : frame(c)) {
    sendAll(dataPeer.get(), &byte, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(updatesAfter(3),
            (std::vector<std::string>{submitted(a), submitted(b), submitted(c)}));
}

TEST_F(RerenderChannels, LargeFrameArrivesInOnePiece) {
  connectBoth();
  // Pad a string child so that the payload is exactly 100,000 bytes.
  const size_t overhead = update("big", "").getBinary().size();
  const GroupAttribute big = update("big", std::string(100000 - overhead, 'x'));
  ASSERT_EQ(big.getBinary().size(), 100000u);
  sendAll(dataPeer.get(), frame(big));
  EXPECT_EQ(updatesAfter(1), std::vector<std::string>{submitted(big)});
}

TEST_F(RerenderChannels, UnparsablePayloadIsSkippedAndTheStreamStaysInStep) {
  connectBoth();
  const GroupAttribute good = update("after", "garbage");
  // A garbage payload that itself looks like a frame header: the state, not
  // the content, decides what it is.
  sendAll(dataPeer.get(), frame(frame("zzzzzzzz")) + frame(good));
  EXPECT_EQ(updatesAfter(1), std::vector<std::string>{submitted(good)});
}

TEST_F(RerenderChannels, ZeroLengthPayloadEndsTheDataReader) {
  connectBoth();
  const GroupAttribute first = update("n", "1"), never = update("n", "2");
  sendAll(dataPeer.get(), frame(first) + frame(std::string()));
  updatesAfter(1);
  // The zero-byte read that follows counts as nothing delivered: the reader
  // is gone, so this frame is never read.
  sendAll(dataPeer.get(), frame(never));
  EXPECT_EQ(updatesAfter(2, std::chrono::milliseconds(300)), std::vector<std::string>{submitted(first)});
}

TEST_F(RerenderChannels, PeerEndingMidStreamIsQuiet) {
  connectBoth();
  const GroupAttribute sent = update("k", "v");
  testing::internal::CaptureStderr();
  // Data: a whole frame, then 3 bytes of a header, then the end.
  sendAll(dataPeer.get(), frame(sent) + std::string(3, '\1'));
  dataPeer.reset();
  // Control: a record cut short is still handed over, 256 bytes long.
  sendAll(controlPeer.get(), std::string("partial\0", 8));
  controlPeer.reset();
  EXPECT_EQ(updatesAfter(1), std::vector<std::string>{submitted(sent)});
  EXPECT_EQ(recording::callsOf("handleControlCommand"),
            std::vector<std::string>{"handleControlCommand partial"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(RerenderChannels, ResetDropsTheRecordInProgressQuietly) {
  connectBoth();
  testing::internal::CaptureStderr();
  sendAll(controlPeer.get(), std::string(100, 'c'));
  sendAll(dataPeer.get(), frame(std::string(100, 'd')).substr(0, 50));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  resetConnection(controlPeer);
  resetConnection(dataPeer);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(recording::calls().empty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(RerenderChannels, EachChannelConnectsOnce) {
  const unsigned short unused = LocalListener::unusedPort();
  testing::internal::CaptureStderr();
  EXPECT_EQ(control.connectControl(&manager, "127.0.0.1", unused), 1);
  EXPECT_THROW(control.connectControl(&manager, "127.0.0.1", controlListener.port()),
               UTIL::AssertException);
  EXPECT_EQ(data.connectData(&manager, "127.0.0.1", dataListener.port()), 0);
  EXPECT_THROW(data.connectData(&manager, "127.0.0.1", dataListener.port()),
               UTIL::AssertException);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "RerenderIPC (control): Could not connect to 127.0.0.1:" + std::to_string(unused) +
                "\nassert(controlInterface == nullptr) failed at "
                "KINDLET/src/RerenderControl/RerenderIPC:9\n"
                "assert(dataInterface == nullptr) failed at "
                "KINDLET/src/RerenderControl/RerenderIPC:30\n");
}

namespace {

// A live render on its own thread, through Manager::render.
class LiveRender {
 public:
  explicit LiveRender(Rendering::Manager& manager)
      : result_(std::async(std::launch::async, [&manager] { return manager.render("liveRender"); })),
        manager_(manager) {}
  ~LiveRender() {
    if (result_.valid()) stop();
  }
  bool running() {
    return result_.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready;
  }
  // Repeats the command: one that lands just before the loop sleeps has no
  // one to wake.
  int stop() {
    while (result_.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready)
      manager_.processControlCommand(std::string("stopLiveEditing"));
    return result_.get();
  }

 private:
  std::future<int32_t> result_;
  Rendering::Manager& manager_;
};

}  // namespace

TEST(RerenderLiveRender, ChannelsFeedTheLoopAndItOutlivesThem) {
  recording::reset();
  Config().set("SELVANE_DISABLE_PREVANE_PLUS", "1");
  LocalListener controlListener, dataListener;
  // render() leaves its readers running with no way to stop them, so the
  // Manager must outlive the test, as it outlives main in kindlet.
  Rendering::Manager& manager = *new Rendering::Manager(
      recording::handle(), recording::suite(), "127.0.0.1", controlListener.port(),
      dataListener.port(), 7);
  LiveRender render(manager);
  FileDescriptor controlPeer = controlListener.accept();
  FileDescriptor dataPeer = dataListener.accept();
  ASSERT_TRUE(recording::waitFor([](const std::vector<std::string>& calls) {
    return calls.size() >= 2;  // start, startLiveEditing
  }));

  const GroupAttribute first = update("first", "1");
  sendAll(dataPeer.get(), frame(first));
  // The loop sleeps without a predicate, so an update that lands before it
  // first sleeps wakes nobody. Empty payloads only wake it (and log an error).
  bool applied = false;
  for (int i = 0; i < 50 && !applied; ++i) {
    applied = recording::waitFor(
        [](const std::vector<std::string>& calls) {
          return !calls.empty() && calls.back() == "applyQueuedUpdates 1";
        },
        std::chrono::milliseconds(100));
    if (!applied) manager.processLiveRenderData("", 0);
  }
  ASSERT_TRUE(applied);

  // Both peers gone: the render keeps running until told otherwise.
  controlPeer.reset();
  dataPeer.reset();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(render.running());
  EXPECT_EQ(render.stop(), 0);
  EXPECT_EQ(recording::calls(),
            (std::vector<std::string>{"start", "startLiveEditing", submitted(first),
                                      "applyQueuedUpdates 1", "stopLiveEditing", "stop"}));
}

TEST(RerenderLiveRender, NoListenerIsReportedAndTheRenderGoesOn) {
  recording::reset();
  Config().set("SELVANE_DISABLE_PREVANE_PLUS", "1");
  const unsigned short controlPort = LocalListener::unusedPort();
  const unsigned short dataPort = LocalListener::unusedPort();
  Rendering::Manager manager(recording::handle(), recording::suite(), "127.0.0.1", controlPort,
                             dataPort, 7);
  testing::internal::CaptureStderr();
  EXPECT_EQ(manager.render("previewRender"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "RerenderIPC (control): Could not connect to 127.0.0.1:" +
                std::to_string(controlPort) + "\nRerenderIPC (data): Could not connect to 127.0.0.1:" +
                std::to_string(dataPort) + "\n");
  EXPECT_EQ(recording::calls(), (std::vector<std::string>{"start", "stop"}));
}
