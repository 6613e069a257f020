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

// A client socket that has registered as render `sequenceID`.
void* registeredClient(void* context, unsigned short port, long sequenceID, int receiveQueue) {
  void* socket = zmq_socket(context, ZMQ_DEALER);
  const int linger = 0;
  zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
  zmq_setsockopt(socket, ZMQ_RCVHWM, &receiveQueue, sizeof receiveQueue);
  zmq_connect(socket, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
  live::Registration registration;
  registration.sessionName = "LiveRenderSession_1";
  registration.sequenceID = registration.pid = sequenceID;
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

TEST(RegistryServer, TheStreamMovesIntoTheRegionAndOutAroundWhatIsTooLargeForIt) {
  KindletControl::RegistryServer registry;
  unsigned short port = 0;
  ASSERT_TRUE(registry.bind(port));
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> received;  // "u <size>" or "c <text>"
  auto add = [&](const std::string& item) {
    std::lock_guard<std::mutex> lock(mutex);
    received.push_back(item);
    changed.notify_all();
  };
  using namespace Arbolite3::internal::XoAttribute;
  live::LiveRenderClient client;
  Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
  client.initializeSession(
      "LiveRenderSession_1", 1, "scene", Arbolite3::internal::XoScenegraphIterator(), info,
      "127.0.0.1", port,
      [&](const GroupAttribute& update) {
        add("u " + std::to_string(StringAttribute(update.getChildByName("p")).getValue().size()));
      },
      [&](const std::string& text) { add("c " + text); });
  auto update = [](size_t size) {
    GroupBuilder builder;
    builder.set("p", StringAttribute(std::string(size, 'x')));
    return live::encodeUpdate(builder.build().getBinary());
  };
  // Before the region is mapped everything goes through the socket; then
  // the ring (16 MiB) wraps several times, and a 9 MiB update, more than half
  // of it, goes back through the socket in its place.
  while (registry.sessions().empty()) registry.poll(10);
  std::vector<std::string> expected;
  for (size_t i = 0; i < 201; ++i) {
    const size_t size = i % 50 == 49 ? (9u << 20) : i % 7 == 0 ? (1u << 20) + i : i;
    registry.send(update(size), nullptr);
    expected.push_back("u " + std::to_string(size));
    if (i % 10 == 0) {
      registry.send(live::encodeCommand(std::to_string(i)), nullptr);
      expected.push_back("c " + std::to_string(i));
    }
    registry.poll(0);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (registry.backlogged() && std::chrono::steady_clock::now() < deadline) registry.poll(1);
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait_until(lock, deadline, [&] { return received.size() >= expected.size(); });
  EXPECT_EQ(received, expected);
  ASSERT_EQ(registry.sessions().size(), 1u);
  EXPECT_TRUE(registry.sessions()[0].inRegion);
}

}  // namespace
