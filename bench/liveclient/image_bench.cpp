// Images from a plug-in to the controller's hands: one 512x512 RGBA half pass
// at a time, from the plug-in's write to kindlet-control's consumer, through
// the image's memory file (a controller on this machine) and through the
// socket; beside a plain memcpy and a bare ZeroMQ pair moving the same bytes.
// See docs/performance.md, "Images".
#include <zmq.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "LiveRendering/LiveRenderClient.h"
#include "RegistryServer.h"
#include "XoImageOut/XoImageOutC.h"

namespace live = Morrigo::Selvane::LiveRendering;
using Clock = std::chrono::steady_clock;

namespace {

const int kSide = 512;
const size_t kPassBytes = size_t(kSide) * kSide * 4 * 2;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// Waits asleep (after a short spin) so that the two CPUs stay with the
// threads being measured.
void waitFor(const std::atomic<uint64_t>& counter, uint64_t target) {
  for (int spin = 0; counter.load(std::memory_order_acquire) < target; ++spin)
    if (spin > 100) std::this_thread::sleep_for(std::chrono::microseconds(20));
}

// Median and p99 of the passes' times, in microseconds, and their bytes.
void reportLatency(benchmark::State& state, std::vector<double>& samples) {
  std::sort(samples.begin(), samples.end());
  state.counters["median_us"] = samples[samples.size() / 2];
  state.counters["p99_us"] = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
  state.SetBytesProcessed(int64_t(samples.size() * kPassBytes));
}

struct Arrivals : KindletControl::ImageConsumer {
  std::atomic<uint64_t> count{0};
  std::atomic<int64_t> at{0};
  void pass(const KindletControl::ImageSource&, const KindletControl::ImageOpen&,
            const KindletControl::ImagePass&, const unsigned char* pixels) override {
    benchmark::DoNotOptimize(pixels[kPassBytes - 1]);
    at.store(nowNs(), std::memory_order_relaxed);
    count.fetch_add(1, std::memory_order_release);
  }
};

// kindlet-control's registry, served on a thread of its own, and one client
// whose plug-in (this thread) publishes "beauty".
struct ImageRig {
  Arrivals arrivals;
  KindletControl::RegistryServer registry;
  live::LiveRenderClient client;
  std::atomic<bool> done{false};
  std::thread serving;
  XoImageOutImage* image = nullptr;
  std::vector<uint16_t> pixels = std::vector<uint16_t>(kPassBytes / 2, 0x3c00);

  explicit ImageRig(bool sameMachine)
      : registry(KindletControl::RegistryServer::kDefaultBacklogLimit, sameMachine) {
    registry.receiveImages(arrivals);
    unsigned short port = 0;
    registry.bind(port);
    Arbolite3::internal::XoRendererInfo::XoRendererInfoPlugin info;
    client.initializeSession("LiveRenderSession_1", 1, "bench",
                             Arbolite3::internal::XoScenegraphIterator(), info, "127.0.0.1", port,
                             [](const Arbolite3::internal::XoAttribute::GroupAttribute&) {},
                             [](const std::string&) {});
    const char* channels[] = {"R", "G", "B", "A"};
    image = XoImageOutOpen("beauty", kSide, kSide, 4, channels, kXoImageHalf);
    serving = std::thread([this] {
      while (!done.load(std::memory_order_relaxed)) registry.poll(5);
    });
    while (!XoImageOutWanted(image)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~ImageRig() {
    XoImageOutClose(image);
    done = true;
    serving.join();
  }
  void publish() {
    XoImageOutWrite(image, 0, 0, kSide, kSide, pixels.data(), kSide * 8, kXoImageHalf, 1, 0);
    XoImageOutPassDone(image);
  }
};

// One pass at a time, from the start of the plug-in's write to the
// consumer's call; median and p99 in microseconds.
void passLatency(benchmark::State& state, bool sameMachine) {
  ImageRig rig(sameMachine);
  std::vector<double> samples;
  uint64_t sent = 0;
  for (int i = 0; i < 20; ++i) {  // the memory file's pages, faulted in once per image
    rig.publish();
    waitFor(rig.arrivals.count, ++sent);
  }
  for (auto _ : state) {
    const int64_t start = nowNs();
    rig.publish();
    waitFor(rig.arrivals.count, ++sent);
    const double seconds = (rig.arrivals.at.load() - start) * 1e-9;
    samples.push_back(seconds * 1e6);
    state.SetIterationTime(seconds);
  }
  reportLatency(state, samples);
}
void BM_ImagePassInMemoryFile(benchmark::State& state) { passLatency(state, true); }
void BM_ImagePassThroughSocket(benchmark::State& state) { passLatency(state, false); }

// The renderer publishes passes back to back for a second; what reaches the
// consumer (the newest each time it is free) per second.
void throughput(benchmark::State& state, bool sameMachine) {
  ImageRig rig(sameMachine);
  for (int i = 0; i < 20; ++i) rig.publish();
  const uint64_t before = rig.arrivals.count.load();
  for (auto _ : state) rig.publish();
  const uint64_t delivered = rig.arrivals.count.load() - before;
  state.counters["delivered_per_published"] = double(delivered) / double(state.iterations());
  state.SetBytesProcessed(int64_t(delivered * kPassBytes));
}
void BM_ImageThroughputInMemoryFile(benchmark::State& state) { throughput(state, true); }
void BM_ImageThroughputThroughSocket(benchmark::State& state) { throughput(state, false); }

// Floors of the memory-file path: copying the pass once, into one buffer
// (hot in the cache) or, as the image service does, into the next of three.
void BM_MemcpyPass(benchmark::State& state) {
  const size_t targets = size_t(state.range(0));
  std::vector<unsigned char> from(kPassBytes, 1), to(kPassBytes * targets);
  size_t next = 0;
  for (auto _ : state) {
    std::memcpy(to.data() + (next++ % targets) * kPassBytes, from.data(), kPassBytes);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations() * kPassBytes));
}

// Floor of the socket path: the same bytes, one message at a time, through
// a bare DEALER/ROUTER pair over loopback, each end in its own context,
// until the receiving thread holds them.
void BM_ZmqPairPass(benchmark::State& state) {
  void* sendContext = zmq_ctx_new();
  void* receiveContext = zmq_ctx_new();
  void* router = zmq_socket(receiveContext, ZMQ_ROUTER);
  void* dealer = zmq_socket(sendContext, ZMQ_DEALER);
  zmq_bind(router, "tcp://127.0.0.1:*");
  char endpoint[64];
  size_t size = sizeof endpoint;
  zmq_getsockopt(router, ZMQ_LAST_ENDPOINT, endpoint, &size);
  zmq_connect(dealer, endpoint);
  std::atomic<uint64_t> received{0};
  std::atomic<int64_t> at{0};
  std::thread receiver([&] {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    while (zmq_msg_recv(&frame, router, 0) >= 0) {
      if (zmq_msg_more(&frame)) continue;
      at.store(nowNs(), std::memory_order_relaxed);
      received.fetch_add(1, std::memory_order_release);
    }
    zmq_msg_close(&frame);
  });
  const std::vector<unsigned char> pass(kPassBytes + 33, 1);
  std::vector<double> samples;
  uint64_t sent = 0;
  for (auto _ : state) {
    const int64_t start = nowNs();
    zmq_send(dealer, pass.data(), pass.size(), 0);
    waitFor(received, ++sent);
    const double seconds = (at.load() - start) * 1e-9;
    samples.push_back(seconds * 1e6);
    state.SetIterationTime(seconds);
  }
  reportLatency(state, samples);
  zmq_close(dealer);
  zmq_ctx_term(sendContext);
  zmq_ctx_shutdown(receiveContext);
  receiver.join();
  zmq_close(router);
  zmq_ctx_term(receiveContext);
}

}  // namespace

BENCHMARK(BM_ImagePassInMemoryFile)->UseManualTime()->Iterations(2000);
BENCHMARK(BM_ImageThroughputInMemoryFile)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_MemcpyPass)->Arg(1)->Arg(3)->UseRealTime();
BENCHMARK(BM_ImageThroughputThroughSocket)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_ImagePassThroughSocket)->UseManualTime()->Iterations(1000);
BENCHMARK(BM_ZmqPairPass)->UseManualTime()->Iterations(1000);

BENCHMARK_MAIN();
