// The live-render client's throughput and latency against what carries the
// same bytes without it. See docs/performance.md, "Live-render client".
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "KINDLET/src/RenderManager.h"
#include "LiveRendering/LiveRenderClient.h"
#include "LiveRendering/LiveRenderProtocol.h"
#include "RegistryServer.h"
#include "XoImageOut/XoImageOutC.h"

using Clock = std::chrono::steady_clock;
using namespace Arbolite3::internal::XoAttribute;
namespace live = Morrigo::Selvane::LiveRendering;

namespace {

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// A plug-in whose submitUpdate counts and notes the time.
struct CountingPlugin {
  std::atomic<uint64_t> submitted{0};
  std::atomic<int64_t> submitAt{0};
  XoRendererPluginSuite suite{};
  CountingPlugin() {
    suite.submitUpdate = [](XoRendererPluginHandle handle, XoAttributeStruct*) -> int32_t {
      auto& plugin = *static_cast<CountingPlugin*>(handle);
      plugin.submitAt.store(nowNs(), std::memory_order_relaxed);
      plugin.submitted.fetch_add(1, std::memory_order_release);
      return 0;
    };
  }
};

// One update of about `size` bytes in the binary form.
std::string updateBytes(size_t size) {
  GroupBuilder builder;
  builder.set("payload", StringAttribute(std::string(size > 48 ? size - 48 : 1, 'x')));
  return builder.build().getBinary();
}

// Waits for the receiver, doing `pump` meanwhile. Spinning only briefly,
// then sleeping, leaves the two CPUs to the threads being measured.
template <typename Pump>
void waitUntil(const std::atomic<uint64_t>& counter, uint64_t target, Pump pump, int spins = 100) {
  for (int spin = 0; counter.load(std::memory_order_acquire) < target; ++spin) {
    pump();
    if (spin >= spins) std::this_thread::sleep_for(std::chrono::microseconds(20));
  }
}


double processCpuSeconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

// Messages per timed iteration: enough that the receiver's drain at the end
// of each batch is a small part of it.
int64_t batchFor(int64_t size) { return size >= (64 << 10) ? 64 : 1000; }

// Each iteration sends one batch and waits until the receiver has counted
// all of it, so the rate is end to end in wall time.
template <typename Send, typename Pump>
void runBatches(benchmark::State& state, const std::string& message,
                const std::atomic<uint64_t>& received, Send send, Pump pump) {
  const int64_t batch = batchFor(state.range(0));
  // Untimed, for every carrier alike: a live session's first pass through a
  // shared region (its pages still to be faulted in) happens once per session,
  // not per update.
  uint64_t sent = std::max<uint64_t>(batch, std::min<uint64_t>((16u << 20) / message.size(), 20 * batch));
  for (uint64_t i = 0; i < sent; ++i) send();
  waitUntil(received, sent, pump);
  const uint64_t warmUp = sent;
  const double cpuBefore = processCpuSeconds();
  for (auto _ : state) {
    for (int64_t i = 0; i < batch; ++i) send();
    sent += batch;
    waitUntil(received, sent, pump);
  }
  // CPU time of every thread of the process (both ends, ZeroMQ's I/O threads
  // included) per message: what a shared machine's load does not change.
  sent -= warmUp;
  if (sent > 0) state.counters["cpu_us_per_msg"] = (processCpuSeconds() - cpuBefore) * 1e6 / sent;
  state.SetItemsProcessed(sent);
  state.SetBytesProcessed(sent * message.size());
}

// kindlet-control's registry (the controller) with one registered client: a
// LiveRenderClient feeding a Manager over a counting plug-in.
struct ClientRig {
  CountingPlugin plugin;
  std::shared_ptr<Rendering::Manager> manager{
      new Rendering::Manager(&plugin, &plugin.suite, "", 0, 0, 1)};
  KindletControl::RegistryServer registry;
  std::unique_ptr<live::LiveRenderClient> client{new live::LiveRenderClient()};

  explicit ClientRig(bool socketOnly = false, KindletControl::ImageConsumer* images = nullptr)
      : registry(KindletControl::RegistryServer::kDefaultBacklogLimit, !socketOnly) {
    if (images != nullptr) registry.receiveImages(*images);
    unsigned short port = 0;
    registry.bind(port);
    Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
    void (Rendering::Manager::*onCommand)(const std::string&) =
        &Rendering::Manager::processControlCommand;
    client->initializeSession(
        "LiveRenderSession_1", 1, "bench", Arbolite3::internal::XoScenegraphIterator(), info,
        "127.0.0.1", port,
        std::bind(&Rendering::Manager::processLiveRenderUpdate, manager, std::placeholders::_1),
        std::bind(onCommand, manager, std::placeholders::_1));
    // As a controller serving its socket would: the client maps its region
    // at once.
    while (registry.sessions().empty() || (!socketOnly && !registry.sessions()[0].ringMapped))
      registry.poll(10);
  }
  ~ClientRig() {
    client.reset();  // first, or it would log the registry's end as an outage
  }
  void send(const KindletControl::Message& message) { registry.send(message, nullptr); }
  // What a controller does while it has nothing to send: let queued messages
  // leave, waiting for room; now and then serve the clients' messages (the
  // client's "region mapped" comes that way).
  void pump() {
    if (registry.backlogged()) {
      registry.poll(1);
    } else if (++idlePumps % 64 == 0) {
      registry.poll(0);
    }
  }
  unsigned idlePumps = 0;
};

void clientToPlugin(benchmark::State& state, bool socketOnly) {
  const auto message = std::make_shared<const std::string>(live::encodeUpdate(updateBytes(state.range(0))));
  ClientRig rig(socketOnly);
  runBatches(state, *message, rig.plugin.submitted, [&] { rig.send(message); },
             [&] { rig.pump(); });
}

// As kindlet-control sends: the stream in the client's shared region.
void BM_ClientToPlugin(benchmark::State& state) { clientToPlugin(state, false); }
// As a controller on another machine must: every update through the socket.
void BM_ClientToPluginSocketOnly(benchmark::State& state) { clientToPlugin(state, true); }

// A bare PUSH/PULL pair over loopback TCP, each end with its own context
// (and so its own I/O thread), as the two ends of a live render live in two
// processes.
struct ZmqPair {
  void* pullContext = zmq_ctx_new();
  void* pushContext = zmq_ctx_new();
  void* pull = zmq_socket(pullContext, ZMQ_PULL);
  void* push = zmq_socket(pushContext, ZMQ_PUSH);
  ZmqPair() {
    zmq_bind(pull, "tcp://127.0.0.1:*");
    char endpoint[64];
    size_t size = sizeof endpoint;
    zmq_getsockopt(pull, ZMQ_LAST_ENDPOINT, endpoint, &size);
    zmq_connect(push, endpoint);
  }
  // The receiving thread must have left its receive before this runs.
  ~ZmqPair() {
    zmq_close(push);
    zmq_close(pull);
    zmq_ctx_term(pushContext);
    zmq_ctx_term(pullContext);
  }
};

// The same frames through a bare PUSH/PULL pair; the receiver only counts.
void BM_ZmqPushPull(benchmark::State& state) {
  const std::string message = live::encodeUpdate(updateBytes(state.range(0)));
  ZmqPair pair;
  void* pull = pair.pull;
  void* push = pair.push;
  std::atomic<uint64_t> received{0};
  std::atomic<bool> done{false};
  std::thread receiver([&] {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    const int timeout = 50;
    zmq_setsockopt(pull, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
    while (!done.load()) {
      if (zmq_msg_recv(&frame, pull, 0) >= 0) received.fetch_add(1, std::memory_order_release);
    }
    zmq_msg_close(&frame);
  });
  // Sent as the registry sends: large messages without a copy.
  runBatches(
      state, message, received,
      [&] {
        if (message.size() < (8 << 10)) {
          zmq_send(push, message.data(), message.size(), 0);
          return;
        }
        zmq_msg_t frame;
        zmq_msg_init_data(&frame, const_cast<char*>(message.data()), message.size(), nullptr,
                          nullptr);
        zmq_msg_send(&frame, push, 0);
      },
      [] {});
  done = true;
  receiver.join();
}

// The floor: length-prefixed frames over a loopback TCP connection, read
// whole into one reused buffer.
void BM_TcpFloor(benchmark::State& state) {
  const std::string message = live::encodeUpdate(updateBytes(state.range(0)));
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(listener, reinterpret_cast<sockaddr*>(&address), length);
  listen(listener, 1);
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
  int writer = socket(AF_INET, SOCK_STREAM, 0);
  connect(writer, reinterpret_cast<sockaddr*>(&address), length);
  int reader = accept(listener, nullptr, nullptr);
  const int one = 1;
  setsockopt(writer, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  std::atomic<uint64_t> received{0};
  std::thread receiver([&] {
    std::vector<char> buffer;
    auto readAll = [&](char* into, size_t size) {
      while (size > 0) {
        const ssize_t n = read(reader, into, size);
        if (n <= 0) return false;
        into += n;
        size -= static_cast<size_t>(n);
      }
      return true;
    };
    for (;;) {
      uint64_t frameSize = 0;
      if (!readAll(reinterpret_cast<char*>(&frameSize), sizeof frameSize)) return;
      buffer.resize(frameSize);
      if (!readAll(buffer.data(), frameSize)) return;
      received.fetch_add(1, std::memory_order_release);
    }
  });
  const uint64_t frameSize = message.size();
  std::string frame(reinterpret_cast<const char*>(&frameSize), sizeof frameSize);
  frame += message;
  runBatches(
      state, message, received,
      [&] {
        for (size_t done = 0; done < frame.size();)
          done += static_cast<size_t>(write(writer, frame.data() + done, frame.size() - done));
      },
      [] {});
  close(writer);
  receiver.join();
  close(reader);
  close(listener);
}

// Sends one message at a time and waits asleep for it; reports the median
// and p99 of the time from the send to the receiver's note of it, in
// microseconds.
template <typename Send, typename Pump = void (*)()>
void measureLatency(benchmark::State& state, Send send, const std::atomic<uint64_t>& received,
                    const std::atomic<int64_t>& receivedAt, Pump pump = [] {}) {
  std::vector<double> samples;
  uint64_t sent = 0;
  for (auto _ : state) {
    const int64_t start = nowNs();
    send();
    // Asleep at once: a spinning sender would take a CPU from the path measured.
    waitUntil(received, ++sent, pump, 0);
    const double seconds = (receivedAt.load() - start) * 1e-9;
    samples.push_back(seconds * 1e6);
    state.SetIterationTime(seconds);
  }
  std::sort(samples.begin(), samples.end());
  if (!samples.empty()) {
    state.counters["median_us"] = samples[samples.size() / 2];
    state.counters["p99_us"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
  }
}

// One update at a time: from the controller's send to the plug-in's
// submitUpdate.
void updateLatency(benchmark::State& state, bool socketOnly) {
  const auto message = std::make_shared<const std::string>(live::encodeUpdate(updateBytes(64)));
  ClientRig rig(socketOnly);
  measureLatency(state, [&] { rig.send(message); }, rig.plugin.submitted, rig.plugin.submitAt);
}
void BM_UpdateLatency(benchmark::State& state) { updateLatency(state, false); }

struct IgnoredImages : KindletControl::ImageConsumer {
  void pass(const KindletControl::ImageSource&, const KindletControl::ImageOpen&,
            const KindletControl::ImagePass&, const unsigned char*) override {}
};

// The same while the controller serves its registry between updates, with
// (range 1) or without (0) a renderer publishing 512x512 RGBA half passes
// back to back that the controller takes.
void BM_UpdateLatencyServing(benchmark::State& state) {
  const auto message = std::make_shared<const std::string>(live::encodeUpdate(updateBytes(64)));
  IgnoredImages images;
  ClientRig rig(false, &images);
  std::atomic<bool> done{false};
  std::thread renderer([&] {
    if (state.range(0) == 0) return;
    const char* channels[] = {"R", "G", "B", "A"};
    XoImageOutImage* image = XoImageOutOpen("beauty", 512, 512, 4, channels, kXoImageHalf);
    std::vector<uint16_t> pixels(512 * 512 * 4, 0x3c00);
    while (!done.load()) {
      XoImageOutWrite(image, 0, 0, 512, 512, pixels.data(), 512 * 8, kXoImageHalf, 1, 0);
      XoImageOutPassDone(image);
    }
    XoImageOutClose(image);
  });
  measureLatency(state, [&] { rig.send(message); }, rig.plugin.submitted, rig.plugin.submitAt,
                 [&] { rig.registry.poll(0); });
  done = true;
  renderer.join();
}
void BM_UpdateLatencySocketOnly(benchmark::State& state) { updateLatency(state, true); }

// Its floor: the same bytes, one at a time, through a bare pair, from zmq_send to the receiving thread's return from
// its blocking receive.
void BM_ZmqPairLatency(benchmark::State& state) {
  const std::string message = live::encodeUpdate(updateBytes(64));
  ZmqPair pair;
  void* pull = pair.pull;
  void* push = pair.push;
  std::atomic<uint64_t> received{0};
  std::atomic<int64_t> receivedAt{0};
  std::thread receiver([&] {
    char buffer[256];
    while (zmq_recv(pull, buffer, sizeof buffer, 0) >= 0) {
      receivedAt.store(nowNs(), std::memory_order_relaxed);
      received.fetch_add(1, std::memory_order_release);
    }
  });
  measureLatency(state, [&] { zmq_send(push, message.data(), message.size(), 0); }, received,
                 receivedAt);
  zmq_ctx_shutdown(pair.pullContext);  // ends the receiver's blocking receive
  receiver.join();
}

}  // namespace

#define PAYLOADS Arg(64)->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20)->UseRealTime()
BENCHMARK(BM_ClientToPlugin)->PAYLOADS;
BENCHMARK(BM_ClientToPluginSocketOnly)->PAYLOADS;
BENCHMARK(BM_ZmqPushPull)->PAYLOADS;
BENCHMARK(BM_TcpFloor)->PAYLOADS;
BENCHMARK(BM_UpdateLatency)->UseManualTime()->Iterations(20000);
BENCHMARK(BM_UpdateLatencySocketOnly)->UseManualTime()->Iterations(20000);
BENCHMARK(BM_UpdateLatencyServing)->Arg(0)->Arg(1)->UseManualTime()->Iterations(20000);
BENCHMARK(BM_ZmqPairLatency)->UseManualTime()->Iterations(20000);

BENCHMARK_MAIN();
