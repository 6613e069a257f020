// Both rerender channels against the real Rendering::Manager and a plug-in
// that records its calls. Many frames in a row are in DataBurstTest.
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "KINDLET/src/RerenderControl/RerenderIPC.h"
#include "KindletTestSupport.h"
#include "LiveRender.h"
#include "TestPlugin.h"
#include "UTIL/src/Exceptions.h"
#include "XoAttribute/Attribute.h"
#include "XoConfiguration/Configuration.h"

using Arbolite3::Base::FileDescriptor;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::XoConfiguration::v1::Config;
using kindlettest::LocalListener;
using kindlettest::sendAll;
using Calls = std::vector<std::string>;

// Leak checking of sanitizer builds: what the channels allocate is never
// freed by design, and the live-render tests leave their Manager to the
// readers that render() started.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:RerenderIPC::connectControl\nleak:RerenderIPC::connectData\n"
         "leak:RerenderLiveRender_\n";
}

namespace {

// One plug-in for the program: readers that render() started outlive a test.
TestPlugin& plugin() {
  static TestPlugin* made = [] {
    TestPlugin* instance = new TestPlugin;
    instance->recordQueries = false;
    instance->describeUpdates = true;
    return instance;
  }();
  return *made;
}

GroupAttribute update(const std::string& name, const std::string& value) {
  return kindlettest::stringGroup({{name, value}});
}
std::string frame(const GroupAttribute& group) { return kindlettest::dataFrame(group.getBinary()); }
std::string submitted(const GroupAttribute& group) { return "submitUpdate " + group.getXML(); }

// Both channels of one RerenderIPC pair connected to local listeners. The
// readers are stopped before the Manager goes: nothing else ties their
// lifetimes together.
class RerenderChannels : public testing::Test {
 protected:
  void SetUp() override { plugin().reset(); }
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
  // Waits for `count` calls (of `slot`, when given), then a little more to
  // catch extras.
  Calls callsAfter(size_t count, const std::string& slot = "",
                   std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    plugin().waitUntil([&](const Calls& calls) {
      size_t found = 0;
      for (const std::string& call : calls) found += call.rfind(slot, 0) == 0;
      return found >= count;
    }, limit);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return slot.empty() ? plugin().calls() : plugin().callsOf(slot);
  }

  LocalListener controlListener, dataListener;
  Rendering::Manager manager{plugin().handle(), plugin().suite(), "127.0.0.1",
                             controlListener.port(), dataListener.port(), 7};
  RerenderIPC control, data;
  FileDescriptor controlPeer, dataPeer;
};

}  // namespace

TEST_F(RerenderChannels, ControlRecordsAreDeliveredWhole) {
  connectBoth();
  using kindlettest::controlRecord;
  sendAll(controlPeer.get(), controlRecord("hello plug-in") + std::string(256, '\0') +
                                 controlRecord("pauseRerender") +
                                 controlRecord("stopLiveEditingNow") +
                                 controlRecord(std::string(255, 'L')));
  // The all-zero record has no effect; only the exact word is a known command.
  EXPECT_EQ(callsAfter(4), (Calls{"handleControlCommand hello plug-in", "pauseRerender",
                                  "handleControlCommand stopLiveEditingNow",
                                  "handleControlCommand " + std::string(255, 'L')}));
}

TEST_F(RerenderChannels, UnparsablePayloadIsSkippedAndTheStreamStaysInStep) {
  connectBoth();
  const GroupAttribute good = update("after", "garbage");
  // A garbage payload that itself looks like a frame header: the state, not
  // the content, decides what it is.
  sendAll(dataPeer.get(),
          kindlettest::dataFrame(kindlettest::dataFrame("zzzzzzzz")) + frame(good));
  EXPECT_EQ(callsAfter(1, "submitUpdate"), Calls{submitted(good)});
}

TEST_F(RerenderChannels, ZeroLengthPayloadEndsTheDataReader) {
  connectBoth();
  const GroupAttribute first = update("n", "1");
  sendAll(dataPeer.get(), frame(first) + kindlettest::dataFrame(""));
  callsAfter(1, "submitUpdate");
  // The reader is gone, so this frame is never read.
  sendAll(dataPeer.get(), frame(update("n", "2")));
  EXPECT_EQ(callsAfter(2, "submitUpdate", std::chrono::milliseconds(300)), Calls{submitted(first)});
}

TEST_F(RerenderChannels, PeerEndingMidStreamIsQuiet) {
  connectBoth();
  const GroupAttribute sent = update("k", "v");
  testing::internal::CaptureStderr();
  // Data: a whole frame, then 3 bytes of a header, then the end. Control: a
  // record cut short is still handed over.
  sendAll(dataPeer.get(), frame(sent) + std::string(3, '\1'));
  dataPeer.reset();
  sendAll(controlPeer.get(), std::string("partial\0", 8));
  controlPeer.reset();
  callsAfter(2);
  EXPECT_EQ(plugin().callsOf("submitUpdate"), Calls{submitted(sent)});
  EXPECT_EQ(plugin().callsOf("handleControlCommand"), Calls{"handleControlCommand partial"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(RerenderChannels, ResetDropsTheRecordInProgressQuietly) {
  connectBoth();
  testing::internal::CaptureStderr();
  sendAll(controlPeer.get(), std::string(100, 'c'));
  sendAll(dataPeer.get(), kindlettest::dataFrame(std::string(100, 'd')).substr(0, 50));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  kindlettest::resetConnection(controlPeer);
  kindlettest::resetConnection(dataPeer);
  EXPECT_TRUE(callsAfter(1, "", std::chrono::milliseconds(100)).empty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(RerenderChannels, EachChannelConnectsOnce) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(control.connectControl(&manager, "127.0.0.1", controlListener.port()), 0);
  EXPECT_THROW(control.connectControl(&manager, "127.0.0.1", controlListener.port()),
               UTIL::AssertException);
  EXPECT_EQ(data.connectData(&manager, "127.0.0.1", dataListener.port()), 0);
  EXPECT_THROW(data.connectData(&manager, "127.0.0.1", dataListener.port()),
               UTIL::AssertException);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "assert(controlInterface == nullptr) failed at "
            "KINDLET/src/RerenderControl/RerenderIPC:9\n"
            "assert(dataInterface == nullptr) failed at "
            "KINDLET/src/RerenderControl/RerenderIPC:30\n");
}

TEST(RerenderLiveRender, ChannelsFeedTheLoopAndItOutlivesThem) {
  plugin().reset();
  Config().set("SELVANE_DISABLE_PREVANE_PLUS", "1");
  LocalListener controlListener, dataListener;
  // render() leaves its readers running with no way to stop them, so the
  // Manager must outlive the test, as it outlives main in kindlet.
  Rendering::Manager& manager = *new Rendering::Manager(
      plugin().handle(), plugin().suite(), "127.0.0.1", controlListener.port(),
      dataListener.port(), 7);
  LiveRender render(manager);
  FileDescriptor controlPeer = controlListener.accept();
  FileDescriptor dataPeer = dataListener.accept();
  ASSERT_TRUE(plugin().waitForCount("startLiveEditing", 1));

  const GroupAttribute first = update("first", "1");
  sendAll(dataPeer.get(), kindlettest::dataFrame(first.getBinary()));
  // An update that lands before the loop has begun waits for a later
  // delivery. Empty payloads only wake it (and log an error).
  bool applied = false;
  for (int i = 0; i < 50 && !applied; ++i) {
    applied = plugin().waitForCount("applyQueuedUpdates", 1, std::chrono::milliseconds(100));
    if (!applied) manager.processLiveRenderData("", 0);
  }
  ASSERT_TRUE(applied);

  // Both peers gone: the render keeps running until told otherwise.
  controlPeer.reset();
  dataPeer.reset();
  EXPECT_FALSE(render.returned(std::chrono::milliseconds(100)));
  EXPECT_EQ(render.stop(), 0);
  EXPECT_EQ(plugin().calls(), (Calls{"start", "startLiveEditing", submitted(first),
                                     "applyQueuedUpdates 1", "stopLiveEditing", "stop"}));
}

TEST(RerenderLiveRender, NoListenerIsReportedAndTheRenderGoesOn) {
  plugin().reset();
  Config().set("SELVANE_DISABLE_PREVANE_PLUS", "1");
  const unsigned short controlPort = LocalListener::unusedPort();
  const unsigned short dataPort = LocalListener::unusedPort();
  Rendering::Manager manager(plugin().handle(), plugin().suite(), "127.0.0.1", controlPort,
                             dataPort, 7);
  testing::internal::CaptureStderr();
  EXPECT_EQ(manager.render("previewRender"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "RerenderIPC (control): Could not connect to 127.0.0.1:" +
                std::to_string(controlPort) + "\nRerenderIPC (data): Could not connect to 127.0.0.1:" +
                std::to_string(dataPort) + "\n");
  EXPECT_EQ(plugin().calls(), (Calls{"start", "stop"}));
}
