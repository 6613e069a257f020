// Throughput of the delivery path, without any transport: the caller hands
// binary updates straight to Rendering::Manager::processLiveRenderData and a
// plug-in suite counts them. Beside it, in the same run, parseBinary alone
// and memcpy of the same bytes (the floor). Then the wake-up latency: from the
// end of submitUpdate, right before the Manager's notify_one, to the loop's
// call of hasQueuedUpdates.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "KINDLET/src/RenderManager.h"
#include "XoAttribute/Attribute.h"

using namespace Arbolite3::internal::XoAttribute;
using Clock = std::chrono::steady_clock;

namespace {

std::atomic<int64_t> g_submitEnd{0};   // ns, last submitUpdate's end
std::atomic<int64_t> g_asked{0};       // ns, last hasQueuedUpdates
std::atomic<bool> g_queued{false};

int64_t now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

std::atomic<bool> g_stamping{false};  // only while measuring the wake-up
thread_local uint64_t t_submitted = 0;

// Counts on the calling thread only, so that two delivering threads share
// nothing here.
int32_t countSubmit(XoRendererPluginHandle, XoAttributeStruct*) {
  ++t_submitted;
  if (g_stamping.load(std::memory_order_relaxed)) {
    g_queued.store(true);
    g_submitEnd.store(now());
  }
  return 0;
}
int32_t askQueued(XoRendererPluginHandle) {
  g_asked.store(now());
  return g_queued.load() ? 1 : 0;
}
int32_t applyQueued(XoRendererPluginHandle) {
  g_queued.store(false);
  return 0;
}
int32_t nothing(XoRendererPluginHandle) { return 0; }
int32_t ignoreCommand(XoRendererPluginHandle, const char*) { return 0; }

XoRendererPluginSuite makeSuite() {
  XoRendererPluginSuite suite;
  std::memset(&suite, 0, sizeof suite);
  suite.start = suite.stop = suite.startLiveEditing = suite.stopLiveEditing = nothing;
  suite.pauseRerender = suite.setup = suite.teardown = nothing;
  suite.handleControlCommand = ignoreCommand;
  suite.submitUpdate = countSubmit;
  suite.hasQueuedUpdates = askQueued;
  suite.applyQueuedUpdates = applyQueued;
  return suite;
}
XoRendererPluginSuite g_suite = makeSuite();
int g_instance;

// One group with one string child, sized so that the binary form is about
// `size` bytes.
std::string payload(size_t size) {
  auto build = [](size_t fill) {
    GroupBuilder builder;
    builder.set("blob", StringAttribute(std::string(fill, 'x')), true);
    return builder.build().getBinary();
  };
  size_t overhead = build(0).size();
  return build(size > overhead ? size - overhead : 0);
}

// Runs `work` on `threads` threads for about `seconds`; operations per second.
double rate(int threads, double seconds, const std::function<void()>& work) {
  std::atomic<bool> go{false}, halt{false};
  std::vector<uint64_t> counts(threads, 0);
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      uint64_t n = 0;
      while (!halt.load(std::memory_order_relaxed)) {
        work();
        ++n;
      }
      counts[t] = n;
    });
  }
  auto start = Clock::now();
  go = true;
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  halt = true;
  for (auto& thread : pool) thread.join();
  double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  uint64_t total = 0;
  for (uint64_t n : counts) total += n;
  return total / elapsed;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::string human(double perSecond) {
  char text[32];
  if (perSecond >= 1e6)
    snprintf(text, sizeof text, "%.2fM", perSecond / 1e6);
  else if (perSecond >= 1e3)
    snprintf(text, sizeof text, "%.1fk", perSecond / 1e3);
  else
    snprintf(text, sizeof text, "%.0f", perSecond);
  return text;
}

void throughput(int runs, double seconds) {
  Rendering::Manager manager(&g_instance, &g_suite, "", 0, 0, 0);
  struct Size {
    const char* label;
    size_t bytes;
  } sizes[] = {{"64 B", 64}, {"4 KiB", 4096}, {"1 MiB", 1 << 20}};
  printf("| payload | bytes | memcpy/s | parseBinary/s | processLiveRenderData/s, 1 thread | 2 threads (total) | MB/s, 1 thread |\n");
  printf("|---|---|---|---|---|---|---|\n");
  for (const Size& size : sizes) {
    const std::string bytes = payload(size.bytes);
    std::vector<double> copy, parse, one, two;
    for (int run = 0; run < runs; ++run) {
      // Each thread copies into its own buffer.
      copy.push_back(rate(1, seconds, [&] {
        thread_local std::vector<char> target;
        target.resize(bytes.size());
        std::memcpy(target.data(), bytes.data(), bytes.size());
        asm volatile("" : : "r"(target.data()) : "memory");
      }));
      parse.push_back(rate(1, seconds, [&] {
        Attribute parsed = Attribute::parseBinary(bytes.data(), bytes.size());
        if (!parsed.isValid()) abort();
      }));
      one.push_back(rate(1, seconds, [&] { manager.processLiveRenderData(bytes.data(), bytes.size()); }));
      two.push_back(rate(2, seconds, [&] { manager.processLiveRenderData(bytes.data(), bytes.size()); }));
    }
    printf("| %s | %zu | %s | %s | %s | %s | %.0f |\n", size.label, bytes.size(),
           human(median(copy)).c_str(), human(median(parse)).c_str(), human(median(one)).c_str(),
           human(median(two)).c_str(), median(one) * bytes.size() / 1e6);
    fflush(stdout);
  }
}

void wakeLatency(int samples) {
  Rendering::Manager manager(&g_instance, &g_suite, "", 0, 0, 0);
  std::atomic<bool> done{false};
  std::thread render([&] {
    manager.render("liveRender");
    done = true;
  });
  GroupBuilder builder;
  builder.set("x", IntAttribute(1), true);
  GroupAttribute update = builder.build();

  std::vector<double> latencies;
  int lost = 0;
  g_stamping = true;
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  while (static_cast<int>(latencies.size()) < samples) {
    int64_t askedBefore = g_asked.load();
    manager.processLiveRenderUpdate(update);
    int64_t sent = g_submitEnd.load();
    auto deadline = Clock::now() + std::chrono::milliseconds(50);
    while (g_asked.load() == askedBefore && Clock::now() < deadline) std::this_thread::yield();
    if (g_asked.load() == askedBefore) {
      ++lost;  // the wake-up came before the loop waited: the next one carries it
      continue;
    }
    latencies.push_back((g_asked.load() - sent) / 1000.0);
    // Let the loop apply and go back to its wait.
    std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
  while (!done) {
    manager.processControlCommand(std::string("stopLiveEditing"));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  render.join();
  std::sort(latencies.begin(), latencies.end());
  printf("\nwake-up latency, %d samples (%d lost wake-ups retried): median %.1f us, p99 %.1f us, max %.1f us\n",
         samples, lost, latencies[latencies.size() / 2], latencies[latencies.size() * 99 / 100],
         latencies.back());
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 5;
  double seconds = 0.3;
  int samples = 2000;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string name = argv[i];
    if (name == "--runs") runs = std::atoi(argv[i + 1]);
    else if (name == "--seconds") seconds = std::atof(argv[i + 1]);
    else if (name == "--samples") samples = std::atoi(argv[i + 1]);
  }
  printf("medians of %d runs of %.2f s each\n\n", runs, seconds);
  throughput(runs, seconds);
  wakeLatency(samples);
  return 0;
}
