// What one update costs on its way into the plug-in when nothing but the
// Manager stands between: parse, merge, submitUpdate, notify_one. See
// docs/performance.md, "In-process delivery".
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "KINDLET/src/RenderManager.h"
#include "XoAttribute/Attribute.h"

using Clock = std::chrono::steady_clock;
using Arbolite3::internal::XoAttribute::Attribute;
using Arbolite3::internal::XoAttribute::GroupAttribute;
using Arbolite3::internal::XoAttribute::GroupBuilder;
using Arbolite3::internal::XoAttribute::StringAttribute;

namespace {

// A plug-in whose submitUpdate only counts; hasQueuedUpdates notes when the
// loop asked, for the wake-up latency.
struct CountingPlugin {
  std::atomic<uint64_t> submitted{0};
  std::atomic<int64_t> submitAt{0};  // ns of the last submitUpdate
  std::mutex mutex;
  std::condition_variable asked;
  int64_t askedAt = 0;  // ns of the last hasQueuedUpdates, under mutex
  uint64_t questions = 0;
  XoRendererPluginSuite suite;
};

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

CountingPlugin& self(XoRendererPluginHandle handle) { return *static_cast<CountingPlugin*>(handle); }

int32_t submitUpdate(XoRendererPluginHandle handle, XoAttributeStruct*) {
  CountingPlugin& plugin = self(handle);
  plugin.submitted.fetch_add(1, std::memory_order_relaxed);
  plugin.submitAt.store(nowNs(), std::memory_order_relaxed);
  return 0;
}

int32_t hasQueuedUpdates(XoRendererPluginHandle handle) {
  const int64_t now = nowNs();
  CountingPlugin& plugin = self(handle);
  std::lock_guard<std::mutex> lock(plugin.mutex);
  plugin.askedAt = now;
  ++plugin.questions;
  plugin.asked.notify_all();
  return 0;
}

int32_t noop(XoRendererPluginHandle) { return 0; }
int32_t noopCommand(XoRendererPluginHandle, const char*) { return 0; }

// A Manager in a live render on its own thread, for the whole run.
struct LiveManager {
  LiveManager() {
    std::memset(&plugin.suite, 0, sizeof plugin.suite);
    plugin.suite.start = noop;
    plugin.suite.stop = noop;
    plugin.suite.startLiveEditing = noop;
    plugin.suite.stopLiveEditing = noop;
    plugin.suite.handleControlCommand = noopCommand;
    plugin.suite.submitUpdate = submitUpdate;
    plugin.suite.hasQueuedUpdates = hasQueuedUpdates;
    plugin.suite.applyQueuedUpdates = noop;
    manager.reset(new Rendering::Manager(&plugin, &plugin.suite, "", 0, 0, 7));
    loop = std::thread([this] { manager->render("liveRender"); });
    waitUntilLooping();
  }
  ~LiveManager() {
    manager->processControlCommand(std::string("stopLiveEditing"));
    // A stop whose wake-up fell between two turns is repeated.
    while (!stopped()) manager->processControlCommand(std::string("stopLiveEditing"));
    loop.join();
  }
  bool stopped() {
    std::unique_lock<std::mutex> lock(plugin.mutex);
    const uint64_t before = plugin.questions;
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    lock.lock();
    return plugin.questions == before;
  }
  // Pokes until the loop answers: then it is in the loop.
  void waitUntilLooping() {
    for (;;) {
      std::unique_lock<std::mutex> lock(plugin.mutex);
      const uint64_t before = plugin.questions;
      lock.unlock();
      manager->processControlCommand(std::string("poke"));
      lock.lock();
      if (plugin.asked.wait_for(lock, std::chrono::milliseconds(20),
                                [&] { return plugin.questions > before; }))
        return;
    }
  }

  CountingPlugin plugin;
  std::unique_ptr<Rendering::Manager> manager;
  std::thread loop;
};

LiveManager* live = nullptr;

// A group update whose binary form is `bytes` long (or a little more when
// that is below its fixed overhead). With `perRender`, it also carries a
// __perRenderUpdateAttributes part for this render, so the merge runs too.
std::string payload(size_t bytes, bool perRender = false) {
  GroupBuilder update;
  if (perRender) {
    GroupBuilder own;
    own.set("exposure", StringAttribute("1.5"));
    const GroupAttribute ownPart = own.build();
    GroupBuilder parts;
    parts.set("7", ownPart);
    parts.set("8", ownPart);
    update.set("__perRenderUpdateAttributes", parts.build());
  }
  update.set("data", StringAttribute(""));
  const size_t overhead = update.build(GroupBuilder::BuildAndRetain).getBinary().size();
  update.set("data", StringAttribute(std::string(bytes > overhead ? bytes - overhead : 0, 'x')));
  return update.build().getBinary();
}

void addSizeArguments(benchmark::internal::Benchmark* bench) {
  bench->Arg(64)->Arg(4096)->Arg(1 << 20);
}

void deliver(benchmark::State& state, bool perRender) {
  const std::string bytes = payload(static_cast<size_t>(state.range(0)), perRender);
  for (auto _ : state) live->manager->processLiveRenderData(bytes.data(), bytes.size());
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
  state.counters["payload"] =
      benchmark::Counter(static_cast<double>(bytes.size()), benchmark::Counter::kAvgThreads);
}

void BM_ProcessLiveRenderData(benchmark::State& state) { deliver(state, false); }
BENCHMARK(BM_ProcessLiveRenderData)->Apply(addSizeArguments)->Threads(1)->Threads(2)->UseRealTime();

// The same with a per-render part to merge for this render.
void BM_ProcessLiveRenderDataMerge(benchmark::State& state) { deliver(state, true); }
BENCHMARK(BM_ProcessLiveRenderDataMerge)->Arg(4096)->Threads(1)->Threads(2)->UseRealTime();

void BM_ParseBinary(benchmark::State& state) {
  const std::string bytes = payload(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Attribute parsed = Attribute::parseBinary(bytes.data(), bytes.size());
    benchmark::DoNotOptimize(parsed);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(BM_ParseBinary)->Apply(addSizeArguments);

void BM_Memcpy(benchmark::State& state) {
  const std::string bytes = payload(static_cast<size_t>(state.range(0)));
  std::vector<char> target(bytes.size());
  for (auto _ : state) {
    std::memcpy(target.data(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(target.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(BM_Memcpy)->Apply(addSizeArguments);

// From the end of submitUpdate (just before notify_one) to the loop's
// hasQueuedUpdates, one update at a time with the loop known to be waiting.
void BM_WakeUpLatency(benchmark::State& state) {
  const std::string bytes = payload(64);
  CountingPlugin& plugin = live->plugin;
  std::vector<double> samples;
  for (auto _ : state) {
    samples.clear();
    while (samples.size() < 5000) {
      // Give the loop time to get back into its wait after the last turn.
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      std::unique_lock<std::mutex> lock(plugin.mutex);
      const uint64_t before = plugin.questions;
      lock.unlock();
      live->manager->processLiveRenderData(bytes.data(), bytes.size());
      lock.lock();
      if (!plugin.asked.wait_for(lock, std::chrono::milliseconds(50),
                                 [&] { return plugin.questions > before; }))
        continue;  // the loop was between turns: that wake-up was lost
      samples.push_back(static_cast<double>(plugin.askedAt - plugin.submitAt.load()) / 1000.0);
    }
  }
  std::sort(samples.begin(), samples.end());
  state.counters["median_us"] = samples[samples.size() / 2];
  state.counters["p99_us"] = samples[samples.size() * 99 / 100];
  state.counters["max_us"] = samples.back();
}
BENCHMARK(BM_WakeUpLatency)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  LiveManager manager;
  live = &manager;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  live = nullptr;
  return 0;
}
