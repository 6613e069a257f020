#include "base/ProcessMetrics.h"

#include <sched.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

namespace base = Arbolite3::Base;

namespace {

const uint64_t kMiB = 1 << 20;

TEST(ProcessMetrics, ProcessFiguresFollowWhatTheProcessDoes) {
  const base::ProcessMemory memoryBefore = base::getProcessMemory();
  const base::ProcessIO ioBefore = base::getProcessIO();
  const base::ProcessCpuTimes cpuBefore = base::getProcessCpuTimes();
  const int filesBefore = base::getOpenFileCount();

  {
    std::vector<char> block(64 * kMiB);
    std::memset(block.data(), 1, block.size());
    const std::string path =
        (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path()).string();
    std::ofstream(path).write(block.data(), 4 * kMiB);
    std::ifstream in(path);
    in.read(block.data(), 4 * kMiB);
    EXPECT_EQ(base::getOpenFileCount(), filesBefore + 1);
    boost::filesystem::remove(path);
  }
  volatile uint64_t spin = 0;
  const base::ProcessCpuTimes start = base::getProcessCpuTimes();
  while (base::getProcessCpuTimes().userMicros + base::getProcessCpuTimes().systemMicros <
         start.userMicros + start.systemMicros + 20000)
    spin = spin + 1;

  const base::ProcessMemory memory = base::getProcessMemory();
  const base::ProcessIO io = base::getProcessIO();
  const base::ProcessCpuTimes cpu = base::getProcessCpuTimes();
  // Pages of the process may leave memory meanwhile: a margin.
  EXPECT_GE(memory.peakResidentBytes, memoryBefore.residentBytes + 56 * kMiB);
  EXPECT_GE(memory.peakResidentBytes, memory.residentBytes);
  EXPECT_GE(io.bytesWritten, ioBefore.bytesWritten + 4 * kMiB);
  EXPECT_GE(io.bytesRead, ioBefore.bytesRead + 4 * kMiB);
  EXPECT_GE(cpu.userMicros + cpu.systemMicros,
            cpuBefore.userMicros + cpuBefore.systemMicros + 20000);
}

TEST(ProcessMetrics, ThreadCountsSeeAThreadThatExists) {
  std::mutex mutex;
  std::condition_variable wake;
  bool done = false;
  std::thread waiting([&] {
    std::unique_lock<std::mutex> lock(mutex);
    wake.wait(lock, [&] { return done; });
  });
  const base::ThreadCounts during = base::getThreadCounts();
  {
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
  }
  wake.notify_one();
  waiting.join();
  // Compared with the count after the join: a sanitizer may start a thread
  // of its own at the first thread creation.
  EXPECT_EQ(during.total, base::getThreadCounts().total + 1);
  // The calling thread is running while it counts.
  EXPECT_GE(during.running, 1);
}

TEST(ProcessMetrics, MachineFiguresAreConsistentWithTheKernel) {
  cpu_set_t mask;
  ASSERT_EQ(sched_getaffinity(0, sizeof mask, &mask), 0);
  const std::vector<int> cpus = base::getAllowedCpus();
  EXPECT_EQ(static_cast<int>(cpus.size()), CPU_COUNT(&mask));
  for (int cpu : cpus) EXPECT_TRUE(CPU_ISSET(cpu, &mask));

  const base::SystemCpuTimes times = base::getSystemCpuTimes();
  EXPECT_GT(times.totalIdleMicros + times.totalUserMicros, 0u);
  EXPECT_LE(times.userMicros, times.totalUserMicros);
  EXPECT_LE(times.idleMicros, times.totalIdleMicros);

  const base::MemoryInfo memory = base::getMemoryInfo();
  EXPECT_GT(memory.totalBytes, memory.freeBytes);
  EXPECT_GT(memory.freeBytes, 0u);
  EXPECT_GE(memory.swapTotalBytes, memory.swapFreeBytes);

  const base::RunQueue queue = base::getRunQueue();
  EXPECT_GE(queue.runnable, 1);  // this thread
  EXPECT_GE(queue.total, queue.runnable);

  EXPECT_GT(base::getCpuFrequency(), 1000000u);

  void* stackBase = nullptr;
  size_t used = 0;
  EXPECT_EQ(base::getStackUsage(stackBase, used), 0);
  EXPECT_LT(static_cast<char*>(stackBase), reinterpret_cast<char*>(&used));
  EXPECT_GT(used, 0u);
  EXPECT_LT(used, 8 * kMiB);

  EXPECT_NE(base::getLibraryPath(reinterpret_cast<const void*>(&::getpid)).find("libc"),
            std::string::npos);
  EXPECT_EQ(base::getLibraryPath(nullptr), "");
}

TEST(ProcessMetrics, EnvironmentSplitsAtTheFirstEqualsSign) {
  ::setenv("KINDLET_METRICS_TEST", "a=b=c", 1);
  ::setenv("KINDLET_METRICS_EMPTY", "", 1);
  const auto environment = base::getEnvironment();
  EXPECT_EQ(environment.at("KINDLET_METRICS_TEST"), "a=b=c");
  EXPECT_EQ(environment.at("KINDLET_METRICS_EMPTY"), "");
  ::unsetenv("KINDLET_METRICS_TEST");
  ::unsetenv("KINDLET_METRICS_EMPTY");
}

}  // namespace
