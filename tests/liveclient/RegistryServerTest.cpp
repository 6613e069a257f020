// kindlet-control's registry with a client that reads and one that does not,
// and with a live-render client reading its stream from the shared region.
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "LiveRendering/LiveRenderClient.h"
#include "LiveRendering/LiveRenderProtocol.h"
#include "RegistryServer.h"

namespace live = Morrigo::Selvane::LiveRendering;

namespace {

// A client socket that has registered as render `sequenceID` (of process
// `pid`, by default the same number).
void* registeredClient(void* context, unsigned short port, long sequenceID, int receiveQueue,
                       long pid = 0, bool sharedRegions = false) {
  void* socket = zmq_socket(context, ZMQ_DEALER);
  const int linger = 0;
  zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
  zmq_setsockopt(socket, ZMQ_RCVHWM, &receiveQueue, sizeof receiveQueue);
  zmq_connect(socket, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
  live::Registration registration;
  registration.sessionName = "LiveRenderSession_1";
  registration.sequenceID = registration.pid = sequenceID;
  if (pid != 0) registration.pid = pid;
  registration.sharedRegions = sharedRegions;
  const std::string message = live::encodeRegister(registration);
  zmq_send(socket, message.data(), message.size(), 0);
  return socket;
}

TEST(RegistryServer, AClientThatStopsReadingHoldsUpNobodyAndIsGivenUpPastItsBound) {
  KindletControl::RegistryServer registry(1 << 20);
  unsigned short port = 0;
  ASSERT_TRUE(registry.bind(port));
  void* context = zmq_ctx_new();
  void* reader = registeredClient(context, port, 1, 1000);
  void* stuck = registeredClient(context, port, 2, 1);
  for (int i = 0; i < 500 && registry.sessions().size() < 2; ++i) registry.poll(10);
  ASSERT_EQ(registry.sessions().size(), 2u);

  const int count = 3000;
  bool inOrder = true;
  std::atomic<int> received{0};
  std::thread reading([&] {
    char buffer[256];
    zmq_recv(reader, buffer, sizeof buffer, 0);  // the acknowledgement
    const int timeout = 20000;
    zmq_setsockopt(reader, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
    for (int next = 0; next < count; received = ++next) {
      if (zmq_recv(reader, buffer, sizeof buffer - 1, 0) < 0) break;
      buffer[sizeof buffer - 1] = '\0';
      inOrder = inOrder && std::stoi(buffer + live::kHeaderSize) == next;
    }
  });
  // The other one gets large updates besides, more than the kernel's
  // buffers and its bound together hold. One buffer serves them all.
  const auto large = std::make_shared<const std::string>(live::encodeUpdate(std::string(64 << 10, 'x')));
  const long stuckID = 2;
  testing::internal::CaptureStderr();
  for (int i = 0; i < count; ++i) {
    // The reader keeps up; only the other one falls behind.
    while (received < i - 200) registry.poll(1);
    registry.send(live::encodeCommand(std::to_string(i)), nullptr);
    if (i % 10 == 0) registry.send(large, &stuckID);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (registry.backlogged() && std::chrono::steady_clock::now() < deadline) registry.poll(10);
  const std::string errors = testing::internal::GetCapturedStderr();
  reading.join();

  EXPECT_EQ(received, count);
  EXPECT_TRUE(inOrder);
  ASSERT_EQ(registry.sessions().size(), 1u);
  EXPECT_EQ(registry.sessions()[0].registration.pid, 1);
  EXPECT_EQ(errors.rfind("kindlet-control: session LiveRenderSession_1 pid 2 has stopped reading: "
                         "more than 1024 KiB wait for it; giving the session up (", 0),
            0u)
      << errors;
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
  zmq_close(reader);
  zmq_close(stuck);
  zmq_ctx_term(context);
}

TEST(RegistryServer, AClientWhoseStreamIsInTheRegionIsGivenUpOnceItsProcessIsGone) {
  KindletControl::RegistryServer registry;
  unsigned short port = 0;
  ASSERT_TRUE(registry.bind(port));
  const long gone = 0x7ffffffe;  // beyond any pid the system hands out
  void* context = zmq_ctx_new();
  void* client = registeredClient(context, port, 1, 1000, gone, true);
  for (int i = 0; i < 500 && registry.sessions().empty(); ++i) registry.poll(10);
  ASSERT_EQ(registry.sessions().size(), 1u);
  const char mapped = char(live::kRegionMapped);  // as if it had mapped its region
  zmq_send(client, &mapped, 1, 0);
  for (int i = 0; i < 500 && !registry.sessions()[0].ringMapped; ++i) registry.poll(10);
  testing::internal::CaptureStderr();
  registry.send(live::encodeCommand("into the region"), nullptr);
  EXPECT_TRUE(registry.sessions()[0].inRegion);
  registry.poll(0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "kindlet-control: session LiveRenderSession_1 pid " + std::to_string(gone) + " is gone\n");
  EXPECT_TRUE(registry.sessions().empty());
  zmq_close(client);
  zmq_ctx_term(context);
}

TEST(RegistryServer, TheStreamMovesIntoTheRegionAndOutAroundWhatIsTooLargeForIt) {
  KindletControl::RegistryServer registry;
  unsigned short port = 0;
  ASSERT_TRUE(registry.bind(port));
  std::mutex mutex;
  std::vector<std::string> received;  // each command's number and size
  auto count = [&] {
    std::lock_guard<std::mutex> lock(mutex);
    return received.size();
  };
  live::LiveRenderClient client;
  Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
  client.initializeSession(
      "LiveRenderSession_1", 1, "scene", Arbolite3::internal::XoScenegraphIterator(), info,
      "127.0.0.1", port, [](const Arbolite3::internal::XoAttribute::GroupAttribute&) {},
      [&](const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex);
        received.push_back(text.substr(0, text.find(' ')) + " " + std::to_string(text.size()));
      });
  while (registry.sessions().empty()) registry.poll(10);
  // Before the region is mapped everything goes through the socket; then the
  // ring (16 MiB) wraps several times, and 9 MiB, more than half of it, go
  // back through the socket in their place.
  std::vector<std::string> expected;
  for (size_t i = 0; i < 201; ++i) {
    std::string text = std::to_string(i) + " ";
    text.resize(i % 50 == 49 ? (9u << 20) : i % 7 == 0 ? (1u << 20) + i : 8 + i, 'x');
    registry.send(live::encodeCommand(text), nullptr);
    expected.push_back(std::to_string(i) + " " + std::to_string(text.size()));
    registry.poll(0);
  }
  for (int i = 0; i < 60000 && (registry.backlogged() || count() < expected.size()); ++i)
    registry.poll(1);
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(received, expected);
  EXPECT_TRUE(registry.sessions()[0].inRegion);
}

// The messages waiting at `socket`, as text.
std::vector<std::string> drain(void* socket, int milliseconds = 200) {
  std::vector<std::string> messages;
  zmq_pollitem_t item = {socket, 0, ZMQ_POLLIN, 0};
  while (zmq_poll(&item, 1, milliseconds) > 0) {
    char buffer[256];
    const int n = zmq_recv(socket, buffer, sizeof buffer, 0);
    messages.emplace_back(buffer, std::min<size_t>(std::max(n, 0), sizeof buffer));
  }
  return messages;
}

TEST(RegistryServer, RegistrationsBeyondTheCapsAndOversizedMessagesAreRefused) {
  KindletControl::RegistryLimits limits;
  limits.sessions = 2;
  limits.messageBytes = 4096;
  KindletControl::RegistryServer registry(1 << 20, true, limits);
  unsigned short port = 0;
  ASSERT_TRUE(registry.bind(port));
  void* context = zmq_ctx_new();
  void* first = registeredClient(context, port, 1, 1000);
  for (int i = 0; i < 500 && registry.sessions().empty(); ++i) registry.poll(10);
  live::Registration second;  // on the same connection
  second.sessionName = "LiveRenderSession_2";
  second.pid = 1;
  // Larger than the registry takes: its connection ends, nothing is registered.
  live::Registration huge = second;
  huge.opTreeFile.assign(8192, 'x');
  void* oversized = zmq_socket(context, ZMQ_DEALER);
  zmq_connect(oversized, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
  testing::internal::CaptureStderr();
  for (const std::string& message : {live::encodeRegister(second), live::encodeRegister(huge)})
    zmq_send(message.size() > 4096 ? oversized : first, message.data(), message.size(), 0);
  for (int i = 0; i < 50; ++i) registry.poll(10);
  void* third = registeredClient(context, port, 3, 1000);
  void* fourth = registeredClient(context, port, 4, 1000);
  for (int i = 0; i < 100; ++i) registry.poll(10);
  const std::string errors = testing::internal::GetCapturedStderr();

  ASSERT_EQ(registry.sessions().size(), 2u);
  EXPECT_EQ(registry.sessions()[0].registration.pid, 1);
  const long refused = registry.sessions()[1].registration.pid == 3 ? 4 : 3;
  const std::string full = "the registry serves at most 2 sessions";
  const std::string perConnection = "one connection may register at most 1 session";
  EXPECT_EQ(errors, "kindlet-control: refused the registration of session LiveRenderSession_2 pid 1: " +
                        perConnection + "\nkindlet-control: refused the registration of session "
                        "LiveRenderSession_1 pid " + std::to_string(refused) + ": " + full + "\n");
  EXPECT_EQ(drain(first), (std::vector<std::string>{live::encodeRegistered(), live::encodeGivenUp(perConnection)}));
  EXPECT_EQ(drain(refused == 3 ? third : fourth), std::vector<std::string>{live::encodeGivenUp(full)});
  for (void* socket : {first, oversized, third, fourth}) zmq_close(socket);
  zmq_ctx_term(context);
}

// A client whose callback hangs stops reading: once it reads again it learns
// that it was given up, and its render is told to stop.
TEST(RegistryServer, AGivenUpClientIsToldAndItsRenderStops) {
  KindletControl::RegistryServer registry(1 << 20, false);
  unsigned short port = 0;
  ASSERT_TRUE(registry.bind(port));
  std::mutex mutex;
  std::condition_variable changed;
  bool hung = false, released = false;
  std::string last;
  live::LiveRenderClient client;
  Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
  client.initializeSession(
      "LiveRenderSession_1", 1, "scene", Arbolite3::internal::XoScenegraphIterator(), info,
      "127.0.0.1", port, [](const Arbolite3::internal::XoAttribute::GroupAttribute&) {},
      [&](const std::string& text) {
        std::unique_lock<std::mutex> lock(mutex);
        hung = true;
        last = text;
        changed.notify_all();
        changed.wait(lock, [&] { return released; });
      });
  while (registry.sessions().empty()) registry.poll(10);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 1000000 && !registry.sessions().empty(); ++i) {
    registry.send(live::encodeCommand(std::string(1024, 'x')), nullptr);
    registry.poll(0);
  }
  EXPECT_NE(testing::internal::GetCapturedStderr().find("has stopped reading"), std::string::npos);
  {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
    changed.notify_all();
  }
  std::unique_lock<std::mutex> lock(mutex);
  for (int i = 0; i < 6000 && last != "stopLiveEditing"; ++i) {  // slow under sanitizers
    lock.unlock();
    registry.poll(10);
    lock.lock();
  }
  EXPECT_TRUE(hung);
  EXPECT_EQ(last, "stopLiveEditing");
}

}  // namespace
