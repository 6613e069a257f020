// Facts about the machine and the running process, read from /proc, /sys and
// system calls. Stateless and safe from any thread; a fact that cannot be
// found reads as zero. Only the directory walks and getLibraryPath throw
// (boost::filesystem errors).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Arbolite3 {
namespace Base {

struct MemoryInfo {
  uint64_t totalBytes = 0;
  uint64_t freeBytes = 0;
  uint64_t swapTotalBytes = 0;
  uint64_t swapFreeBytes = 0;
};

struct ProcessMemory {
  uint64_t residentBytes = 0;
  uint64_t peakResidentBytes = 0;
  uint64_t swapBytes = 0;
};

// Kernel scheduling entities, from the fourth field of /proc/loadavg.
struct RunQueue {
  int total = 0;
  int runnable = 0;
};

struct ProcessIO {
  uint64_t bytesRead = 0;
  uint64_t bytesWritten = 0;
};

struct ProcessCpuTimes {
  uint64_t userMicros = 0;
  uint64_t systemMicros = 0;
};

// Cumulative since boot: first over the CPUs this process may use, then over
// all CPUs. A rate is the difference of two samples.
struct SystemCpuTimes {
  uint64_t userMicros = 0;
  uint64_t systemMicros = 0;
  uint64_t idleMicros = 0;
  uint64_t totalUserMicros = 0;
  uint64_t totalSystemMicros = 0;
  uint64_t totalIdleMicros = 0;
};

struct ThreadCounts {
  int total = 0;
  int running = 0;
};

// Hertz; 0 if no source knows.
uint64_t getCpuFrequency();
MemoryInfo getMemoryInfo();
ProcessMemory getProcessMemory();
RunQueue getRunQueue();
// Characters read and written through system calls (rchar, wchar).
ProcessIO getProcessIO();
ProcessCpuTimes getProcessCpuTimes();
SystemCpuTimes getSystemCpuTimes();
// The calling thread's stack: its lowest address, and how much of it lies
// above this call. 0 or a pthread error.
int getStackUsage(void*& base, size_t& used);
ThreadCounts getThreadCounts();
// Entries of /proc/self/fd, the one the count itself opens included.
int getOpenFileCount();
std::vector<int> getAllowedCpus();
// The canonical file of the shared object holding `address`; empty if none.
std::string getLibraryPath(const void* address);
// An entry without "=" gives an empty value; a repeated key keeps its last.
std::map<std::string, std::string> getEnvironment();

}  // namespace Base
}  // namespace Arbolite3
