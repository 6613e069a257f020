// kindlet-control's registry with clients that read and one that does not.
#include <gtest/gtest.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "LiveRendering/LiveRenderProtocol.h"
#include "RegistryServer.h"

namespace live = Morrigo::Selvane::LiveRendering;

namespace {

// A client socket that has registered as `pid` and is past the acknowledgement.
void* registeredClient(void* context, unsigned short port, long pid, int receiveQueue) {
  void* socket = zmq_socket(context, ZMQ_DEALER);
  const int linger = 0;
  zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
  zmq_setsockopt(socket, ZMQ_RCVHWM, &receiveQueue, sizeof receiveQueue);
  zmq_connect(socket, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
  live::Registration registration;
  registration.sessionName = "LiveRenderSession_1";
  registration.pid = pid;
  const std::string message = live::encodeRegister(registration);
  zmq_send(socket, message.data(), message.size(), 0);
  return socket;
}

TEST(RegistryServer, AClientThatStopsReadingHoldsUpNobodyAndIsGivenUpPastItsBound) {
  const size_t limit = 4 << 20;
  KindletControl::RegistryServer registry(limit);
  unsigned short port = 0;
  ASSERT_TRUE(registry.bind(port));
  void* context = zmq_ctx_new();
  void* reader = registeredClient(context, port, 1, 1000);
  void* stuck = registeredClient(context, port, 2, 1);
  for (int i = 0; i < 500 && registry.sessions().size() < 2; ++i) registry.poll(10);
  ASSERT_EQ(registry.sessions().size(), 2u);

  const int count = 6000;
  bool inOrder = true;
  std::atomic<int> received{0};
  std::thread reading([&] {
    char buffer[8192];
    zmq_recv(reader, buffer, sizeof buffer, 0);  // the acknowledgement
    const int timeout = 20000;
    zmq_setsockopt(reader, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
    for (int next = 0; next < count; received = ++next) {
      if (zmq_recv(reader, buffer, sizeof buffer, 0) < 0) break;
      inOrder = inOrder && std::stoi(buffer + live::kHeaderSize) == next;
    }
  });
  testing::internal::CaptureStderr();
  for (int i = 0; i < count; ++i) {
    // The reader keeps up; only the other one falls behind.
    while (received < i - 200) registry.poll(1);
    std::string text = std::to_string(i);
    text.resize(4000, '\0');
    registry.send(live::encodeCommand(text), nullptr);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (registry.backlogged() && std::chrono::steady_clock::now() < deadline) registry.poll(10);
  const std::string errors = testing::internal::GetCapturedStderr();
  reading.join();

  EXPECT_EQ(received, count);
  EXPECT_TRUE(inOrder);
  ASSERT_EQ(registry.sessions().size(), 1u);
  EXPECT_EQ(registry.sessions()[0].registration.pid, 1);
  EXPECT_EQ(errors, "kindlet-control: session LiveRenderSession_1 pid 2 has stopped reading: "
                    "more than 4 MiB wait for it; giving the session up (" +
                        std::to_string(limit / live::encodeCommand(std::string(4000, 'x')).size() + 1) +
                        " messages to it not sent)\n");
  zmq_close(reader);
  zmq_close(stuck);
  zmq_ctx_term(context);
}

}  // namespace
