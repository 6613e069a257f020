// LiveRenderClient in-process against a bare routing socket standing in for
// the controller: order, the per-render fold and bad bytes.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <gtest/gtest.h>
#include <zmq.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>

#include "LiveRendering/LiveRenderClient.h"
#include "LiveRendering/LiveRenderProtocol.h"
#include "LiveRendering/PerRenderUpdate.h"
#include "XoConfiguration/Configuration.h"

namespace live = Morrigo::Selvane::LiveRendering;
using namespace Arbolite3::internal::XoAttribute;

namespace {

// ctest runs each case as its own process, in parallel: one log per process.
const std::string logPath = ::testing::TempDir() + "live_client_test." + std::to_string(getpid()) + ".log";

// The controller's side: one routing socket and the last client's identity.
class Controller {
 public:
  explicit Controller(int port) : context(zmq_ctx_new()), socket(zmq_socket(context, ZMQ_ROUTER)) {
    const int linger = 0, timeout = 10000, mandatory = 1;
    zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
    // Without it a full queue drops messages instead of making send() wait.
    zmq_setsockopt(socket, ZMQ_ROUTER_MANDATORY, &mandatory, sizeof mandatory);
    zmq_setsockopt(socket, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
    const std::string endpoint = "tcp://127.0.0.1:" + (port ? std::to_string(port) : "*");
    EXPECT_EQ(zmq_bind(socket, endpoint.c_str()), 0) << zmq_strerror(zmq_errno());
    char bound[64];
    size_t size = sizeof bound;
    zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, bound, &size);
    this->port = std::stoi(std::string(bound).substr(std::string(bound).rfind(':') + 1));
  }
  ~Controller() {
    zmq_close(socket);
    zmq_ctx_term(context);
  }
  // The next message's kind byte and body, remembering who sent it.
  std::string receive() {
    char buffer[4096];
    const int n = zmq_recv(socket, buffer, sizeof buffer, 0);
    if (n < 0) return "";
    identity.assign(buffer, n);
    const int m = zmq_recv(socket, buffer, sizeof buffer, 0);
    return m < 0 ? "" : std::string(buffer, std::min<size_t>(m, sizeof buffer));
  }
  void send(const std::string& message) {
    zmq_send(socket, identity.data(), identity.size(), ZMQ_SNDMORE);
    zmq_send(socket, message.data(), message.size(), 0);
  }

  void* context;
  void* socket;
  std::string identity;
  int port = 0;
};

// What the callbacks received, in order: "u <xml>" or "c <text>".
struct Received {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> items;

  void add(const std::string& item) {
    std::lock_guard<std::mutex> lock(mutex);
    items.push_back(item);
    changed.notify_all();
  }
  bool waitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(20), [&] { return items.size() >= count; });
  }
};

std::unique_ptr<live::LiveRenderClient> startClient(int port, Received& received, long sequenceID = 7) {
  std::unique_ptr<live::LiveRenderClient> client(new live::LiveRenderClient());
  Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
  info.registeredName = "test";
  client->initializeSession(
      "LiveRenderSession_1", sequenceID, "scene.json", Arbolite3::internal::XoScenegraphIterator(),
      info, "127.0.0.1", static_cast<uint16_t>(port),
      [&received](const GroupAttribute& update) { received.add("u " + update.getXML()); },
      [&received](const std::string& text) { received.add("c " + text); });
  return client;
}

std::string group(const std::string& name, const Attribute& value) {
  GroupBuilder builder;
  builder.set(name, value);
  return builder.build().getBinary();
}

std::vector<std::string> errorLines() {
  std::ifstream file(logPath);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);)
    if (line.rfind("[ERROR LiveRendering]", 0) == 0) lines.push_back(line);
  return lines;
}

class LiveClient : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::remove(logPath.c_str());
    Arbolite3::XoConfiguration::v1::Config().set("SELVANE_LOG_FILE", logPath);
  }
};

TEST_F(LiveClient, RegistersAndDeliversUpdatesAndCommandsInTheOrderSent) {
  Controller controller(0);
  Received received;
  auto client = startClient(controller.port, received);
  live::Registration registration;
  std::string error;
  const std::string message = controller.receive();
  ASSERT_TRUE(live::decodeRegister(message.data(), message.size(), registration, error)) << error;
  EXPECT_EQ(registration.sessionName, "LiveRenderSession_1");
  EXPECT_EQ(registration.sequenceID, 7);
  EXPECT_EQ(registration.rendererName, "test");
  EXPECT_EQ(registration.opTreeFile, "scene.json");

  // Every render's part travels in one message; render 7 sees only its own.
  GroupBuilder parts;
  GroupBuilder own;
  own.set("own", StringAttribute("seven"));
  parts.set("7", own.build());
  parts.set("8", StringAttribute("eight"));
  GroupBuilder shared;
  shared.set("n", IntAttribute(-1));
  shared.set(live::kPerRenderUpdateKey, parts.build());
  controller.send(live::encodeUpdate(shared.build().getBinary()));

  const int updates = 10000;
  for (int i = 0; i < updates; ++i) {
    controller.send(live::encodeUpdate(group("n", IntAttribute(i))));
    if (i % 1000 == 999) controller.send(live::encodeCommand("after " + std::to_string(i)));
  }
  controller.send(live::encodeCommand("stopLiveEditing"));
  ASSERT_TRUE(received.waitFor(1 + updates + 10 + 1));

  std::vector<std::string> expected = {"u " + [] {
    GroupBuilder b;
    b.set("own", StringAttribute("seven"));
    b.set("n", IntAttribute(-1));
    return b.build().getXML();
  }()};
  for (int i = 0; i < updates; ++i) {
    GroupBuilder b;
    b.set("n", IntAttribute(i));
    expected.push_back("u " + b.build().getXML());
    if (i % 1000 == 999) expected.push_back("c after " + std::to_string(i));
  }
  expected.push_back("c stopLiveEditing");
  std::lock_guard<std::mutex> lock(received.mutex);
  EXPECT_EQ(received.items, expected);
}

TEST_F(LiveClient, BadBytesGiveOneErrorLineEachAndTheSessionGoesOn) {
  Controller controller(0);
  Received received;
  auto client = startClient(controller.port, received);
  controller.receive();
  const size_t before = errorLines().size();
  const std::string notGroup = IntAttribute(1).getBinary();
  std::string overclaim = live::encodeUpdate(group("a", IntAttribute(1)));
  overclaim.replace(1, 4, "\xff\xff\xff\x7f");  // 2 GiB: nothing may be allocated for it
  const std::string carried = std::to_string(overclaim.size() - live::kHeaderSize);
  const std::string plainFile = logPath + ".region";
  std::ofstream(plainFile) << std::string(4096, '\0');
  const int unsealed = memfd_create("unsealed", MFD_CLOEXEC);  // could shrink under a mapping
  ASSERT_EQ(ftruncate(unsealed, 4096), 0);
  const std::string unsealedFile = "/proc/self/fd/" + std::to_string(unsealed);
  const struct {
    std::string message, reason;
  } cases[] = {
      {live::encodeUpdate("\x05garbage"), "update is not a binary attribute"},
      {live::encodeUpdate(notGroup), "update is not a group attribute"},
      {overclaim, "update claims 2147483647 bytes but carries " + carried},
      {std::string("\x83\x09\x00\x00\x00stop", 9), "command claims 9 bytes but carries 4"},
      {std::string("\x82\x01", 2), "update shorter than its header"},
      {"\x42", "unknown message kind 0x42"},
      {live::encodeUpdate(group(live::kPerRenderUpdateKey, IntAttribute(3))),
       "update's __perRenderUpdateAttributes is not a group"},
      {live::encodeSharedUpdate(64, 10, 1), "shared update without a region"},
      {live::encodeToRegion(0, "/proc/self/fd/0"), "a to-region message without a region"},
      {live::encodeRegion(plainFile), "the shared region " + plainFile + " is not an anonymous memory file sealed against shrinking"},
      {live::encodeRegion(unsealedFile), "the shared region " + unsealedFile + " is not an anonymous memory file sealed against shrinking"},
  };
  for (const auto& bad : cases) controller.send(bad.message);
  controller.send(live::encodeCommand("still here"));
  ASSERT_TRUE(received.waitFor(1));
  EXPECT_EQ(received.items, std::vector<std::string>{"c still here"});
  const std::vector<std::string> lines = errorLines();
  ASSERT_EQ(lines.size(), before + std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i)
    EXPECT_NE(lines[before + i].find(": " + cases[i].reason + "."), std::string::npos) << lines[before + i];
  close(unsealed);
}

TEST_F(LiveClient, AMessageBeyondTheLargestSizeEndsTheConnectionAndTheSessionRegistersAgain) {
  Arbolite3::XoConfiguration::v1::Config().set("SELVANE_LIVE_MAX_MESSAGE_BYTES", "65536");
  Controller controller(0);
  Received received;
  auto client = startClient(controller.port, received);
  Arbolite3::XoConfiguration::v1::Config().set("SELVANE_LIVE_MAX_MESSAGE_BYTES", "");
  controller.receive();
  const std::string first = controller.identity;
  controller.send(live::encodeCommand(std::string(70000, 'x')));
  EXPECT_EQ(controller.receive().substr(0, 1), std::string(1, char(live::kRegister)));
  EXPECT_NE(controller.identity, first);
  controller.send(live::encodeCommand("after"));
  ASSERT_TRUE(received.waitFor(1));
  EXPECT_EQ(received.items, std::vector<std::string>{"c after"});
}

TEST_F(LiveClient, BadRecordsInTheRegionGiveOneErrorLineEachAndTheStreamGoesOn) {
  Controller controller(0);
  Received received;
  auto client = startClient(controller.port, received);
  controller.receive();
  const size_t before = errorLines().size();
  // A region and a doorbell of the controller's own making.
  const int region = memfd_create("region", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  ASSERT_EQ(ftruncate(region, 4096), 0);
  ASSERT_EQ(fcntl(region, F_ADD_SEALS, F_SEAL_SHRINK), 0);
  auto* base = static_cast<unsigned char*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, region, 0));
  int doorbell[2];
  ASSERT_EQ(pipe2(doorbell, O_CLOEXEC | O_NONBLOCK), 0);
  controller.send(live::encodeRegion("/proc/self/fd/" + std::to_string(region)));
  ASSERT_EQ(controller.receive(), std::string(1, char(live::kRegionMapped)));
  const std::string plainFile = logPath + ".doorbell";
  std::ofstream(plainFile) << "not a pipe";
  controller.send(live::encodeToRegion(0, plainFile));
  controller.send(live::encodeToRegion(0, "/proc/self/fd/" + std::to_string(doorbell[0])));
  uint64_t written = 0;
  auto publish = [&](const std::string& message, uint32_t claimed) {
    unsigned char* at = base + live::kRegionHeaderSize + written;
    const uint32_t header[2] = {claimed, 0};
    memcpy(at, header, sizeof header);
    memcpy(at + sizeof header, message.data(), message.size());
    written += live::recordSpan(message.size());
    __atomic_store_n(reinterpret_cast<uint64_t*>(base + live::kPublishedOffset), written, __ATOMIC_SEQ_CST);
    const char ring = 1;
    EXPECT_EQ(write(doorbell[1], &ring, 1), 1);
    // A corrupt record makes the client skip all that is published: one at a time.
    const auto* released = reinterpret_cast<const uint64_t*>(base + live::kReleaseMarkOffset);
    for (int i = 0; i < 20000 && __atomic_load_n(released, __ATOMIC_ACQUIRE) != written; ++i)
      usleep(1000);
  };
  publish(live::encodeRegistered(), 1);
  publish(live::encodeCommand("lost"), 1000);
  publish(live::encodeCommand("still here"), 15);
  ASSERT_TRUE(received.waitFor(1));
  controller.send(live::encodeToSocket());
  publish(live::encodeCommand("and here"), 13);
  ASSERT_TRUE(received.waitFor(2));
  EXPECT_EQ(received.items, (std::vector<std::string>{"c still here", "c and here"}));
  const std::string reasons[] = {
      "the doorbell " + plainFile + " is not a pipe",
      "a message of kind 0x81 in the region's stream",
      "the region's record at position 16 claims 1000 bytes, more than it holds; skipped what "
      "the controller had published",
      "a to-socket message through the socket"};
  // The socket's message may be read after the region's last record.
  std::vector<std::string> lines = errorLines();
  for (int i = 0; i < 2000 && lines.size() < before + std::size(reasons); ++i, lines = errorLines())
    usleep(10000);
  ASSERT_EQ(lines.size(), before + std::size(reasons));
  for (size_t i = 0; i < std::size(reasons); ++i)
    EXPECT_NE(lines[before + i].find(": " + reasons[i] + "."), std::string::npos) << lines[before + i];
  munmap(base, 4096);
  close(region);
  close(doorbell[0]);
  close(doorbell[1]);
}

TEST_F(LiveClient, NoRegistryToConnectToIsARendererPluginError) {
  Received received;
  for (const auto& address : {std::make_pair(std::string(), 5555), std::make_pair(std::string("h"), 0)}) {
    live::LiveRenderClient client;
    Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
    EXPECT_THROW(client.initializeSession("s", 0, "f", Arbolite3::internal::XoScenegraphIterator(),
                                          info, address.first, address.second, nullptr, nullptr),
                 Rendering::RendererPluginError);
  }
}

}  // namespace
