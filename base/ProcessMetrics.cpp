#include "base/ProcessMetrics.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include <boost/filesystem.hpp>
#include <boost/thread/thread.hpp>

extern char** environ;

namespace Arbolite3 {
namespace Base {

namespace {

// The first number a "%ld" reads from a file, or 0.
uint64_t readNumber(const char* path) {
  long value = 0;
  FILE* file = std::fopen(path, "r");
  if (file == nullptr) return 0;
  if (std::fscanf(file, "%ld", &value) != 1 || value < 0) value = 0;
  std::fclose(file);
  return static_cast<uint64_t>(value);
}

struct LineFormat {
  const char* format;
  uint64_t* target;
  int shift;
};

// Tries every line of `path` against the formats; each "%ld" match is stored.
template <size_t N>
void scanLines(const char* path, const LineFormat (&formats)[N]) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    for (const LineFormat& format : formats) {
      long value = 0;
      if (std::sscanf(line.c_str(), format.format, &value) == 1 && value >= 0)
        *format.target = static_cast<uint64_t>(value) << format.shift;
    }
  }
}

// This process's CPU affinity, 1024 CPUs wide.
bool getAffinity(cpu_set_t& mask) {
  CPU_ZERO(&mask);
  return ::sched_getaffinity(0, sizeof mask, &mask) == 0;
}

}  // namespace

uint64_t getCpuFrequency() {
  if (const uint64_t khz = readNumber("/sys/devices/system/cpu/cpu0/tsc_freq_khz"))
    return khz * 1000;
  if (const uint64_t khz = readNumber("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq"))
    return khz * 1000;
  std::ifstream file("/proc/cpuinfo");
  std::string line;
  while (std::getline(file, line)) {
    float mhz = 0;
    if (std::sscanf(line.c_str(), "cpu MHz : %f", &mhz) == 1)
      return static_cast<uint64_t>(mhz * 1000.0f * 1000.0f);
  }
  return 0;
}

MemoryInfo getMemoryInfo() {
  MemoryInfo info;
  const LineFormat formats[] = {{"MemTotal: %ld", &info.totalBytes, 10},
                                {"MemFree: %ld", &info.freeBytes, 10},
                                {"SwapTotal: %ld", &info.swapTotalBytes, 10},
                                {"SwapFree: %ld", &info.swapFreeBytes, 10}};
  scanLines("/proc/meminfo", formats);
  return info;
}

ProcessMemory getProcessMemory() {
  ProcessMemory memory;
  const LineFormat formats[] = {{"VmRSS: %ld", &memory.residentBytes, 10},
                                {"VmHWM: %ld", &memory.peakResidentBytes, 10},
                                {"VmSwap: %ld", &memory.swapBytes, 10}};
  scanLines("/proc/self/status", formats);
  return memory;
}

RunQueue getRunQueue() {
  RunQueue queue;
  FILE* file = std::fopen("/proc/loadavg", "r");
  if (file == nullptr) return queue;
  int runnable = 0, total = 0;
  if (std::fscanf(file, "%*f %*f %*f %d/%d", &runnable, &total) == 2) {
    queue.total = total;
    queue.runnable = runnable;
  }
  std::fclose(file);
  return queue;
}

ProcessIO getProcessIO() {
  ProcessIO io;
  const LineFormat formats[] = {{"rchar: %ld", &io.bytesRead, 0},
                                {"wchar: %ld", &io.bytesWritten, 0}};
  scanLines("/proc/self/io", formats);
  return io;
}

ProcessCpuTimes getProcessCpuTimes() {
  ProcessCpuTimes times;
  rusage usage;
  if (::getrusage(RUSAGE_SELF, &usage) != 0) return times;
  times.userMicros = static_cast<uint64_t>(usage.ru_utime.tv_sec) * 1000000 +
                     static_cast<uint64_t>(usage.ru_utime.tv_usec);
  times.systemMicros = static_cast<uint64_t>(usage.ru_stime.tv_sec) * 1000000 +
                       static_cast<uint64_t>(usage.ru_stime.tv_usec);
  return times;
}

SystemCpuTimes getSystemCpuTimes() {
  SystemCpuTimes times;
  cpu_set_t mask;
  if (!getAffinity(mask)) return times;
  const uint64_t microsPerTick = 1000000 / static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  std::ifstream file("/proc/stat");
  std::string line;
  while (std::getline(file, line)) {
    if (line.compare(0, 4, "cpu ") == 0) continue;
    int cpu = 0;
    long user, nice, system, idle, iowait, irq, softirq, steal;
    if (std::sscanf(line.c_str(), "cpu%d %ld %ld %ld %ld %ld %ld %ld %ld", &cpu, &user, &nice,
                    &system, &idle, &iowait, &irq, &softirq, &steal) != 9)
      continue;
    const uint64_t userMicros = static_cast<uint64_t>(user + nice) * microsPerTick;
    const uint64_t systemMicros =
        static_cast<uint64_t>(system + irq + softirq + steal) * microsPerTick;
    const uint64_t idleMicros = static_cast<uint64_t>(idle + iowait) * microsPerTick;
    times.totalUserMicros += userMicros;
    times.totalSystemMicros += systemMicros;
    times.totalIdleMicros += idleMicros;
    // The mask cannot hold higher indexes: count them as allowed.
    if (cpu >= CPU_SETSIZE || CPU_ISSET(cpu, &mask)) {
      times.userMicros += userMicros;
      times.systemMicros += systemMicros;
      times.idleMicros += idleMicros;
    }
  }
  return times;
}

int getStackUsage(void*& base, size_t& used) {
  base = nullptr;
  used = 0;
  pthread_attr_t attributes;
  int error = ::pthread_getattr_np(::pthread_self(), &attributes);
  if (error != 0) return error;
  void* lowest = nullptr;
  size_t size = 0;
  ::pthread_attr_getstack(&attributes, &lowest, &size);
  const char here = 0;
  const char* top = static_cast<const char*>(lowest) + size;
  base = lowest;
  used = top > &here ? static_cast<size_t>(top - &here) : static_cast<size_t>(&here - top);
  return ::pthread_attr_destroy(&attributes);
}

ThreadCounts getThreadCounts() {
  ThreadCounts counts;
  for (boost::filesystem::directory_iterator entry("/proc/self/task"), end; entry != end;
       ++entry) {
    FILE* file = std::fopen((entry->path() / "stat").c_str(), "r");
    if (file == nullptr) continue;  // the thread has gone
    char state = 0;
    if (std::fscanf(file, "%*d %*s %c", &state) == 1) {
      ++counts.total;
      if (state == 'R') ++counts.running;
    }
    std::fclose(file);
  }
  return counts;
}

int getOpenFileCount() {
  int count = 0;
  for (boost::filesystem::directory_iterator entry("/proc/self/fd"), end; entry != end; ++entry)
    ++count;
  return count;
}

std::vector<int> getAllowedCpus() {
  std::vector<int> cpus;
  cpu_set_t mask;
  if (!getAffinity(mask)) return cpus;
  const int count = static_cast<int>(boost::thread::hardware_concurrency());
  for (int cpu = 0; cpu < count && cpu < CPU_SETSIZE; ++cpu)
    if (CPU_ISSET(cpu, &mask)) cpus.push_back(cpu);
  return cpus;
}

std::string getLibraryPath(const void* address) {
  Dl_info info;
  if (::dladdr(address, &info) == 0 || info.dli_fname == nullptr || *info.dli_fname == '\0')
    return std::string();
  return boost::filesystem::canonical(info.dli_fname).string();
}

std::map<std::string, std::string> getEnvironment() {
  std::map<std::string, std::string> environment;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
      environment[text] = std::string();
    else
      environment[text.substr(0, equals)] = text.substr(equals + 1);
  }
  return environment;
}

}  // namespace Base
}  // namespace Arbolite3
