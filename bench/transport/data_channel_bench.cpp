// Data channel throughput and latency against the floor of a plain loopback
// TCP stream. See docs/performance.md, "Data channel throughput".
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KINDLET/src/RenderManager.h"
#include "KINDLET/src/RerenderControl/RerenderIPC.h"
#include "XoAttribute/Attribute.h"

using Clock = std::chrono::steady_clock;
using Arbolite3::internal::XoAttribute::GroupBuilder;
using Arbolite3::internal::XoAttribute::StringAttribute;

namespace {

// The counting plug-in: submitUpdate notes the count and the time.
std::mutex countMutex;
std::condition_variable counted;
uint64_t updates = 0;
Clock::time_point lastUpdate;

int32_t submitUpdate(XoRendererPluginHandle, XoAttributeStruct*) {
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> lock(countMutex);
  ++updates;
  lastUpdate = now;
  counted.notify_one();
  return 0;
}

Clock::time_point waitForUpdates(uint64_t count) {
  std::unique_lock<std::mutex> lock(countMutex);
  counted.wait(lock, [&] { return updates >= count; });
  return lastUpdate;
}

XoRendererPluginSuite countingSuite() {
  XoRendererPluginSuite suite = {};
  suite.submitUpdate = submitUpdate;
  return suite;
}

int listenLocal(unsigned short& port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, 1) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::perror("listen");
    std::exit(1);
  }
  port = ntohs(address.sin_port);
  return fd;
}

void sendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) {
      std::perror("send");
      std::exit(1);
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// A frame whose payload is a group with one string, about `size` bytes.
std::string makeFrame(size_t size) {
  GroupBuilder empty;
  empty.set("payload", StringAttribute(std::string()));
  const size_t overhead = empty.build().getBinary().size();
  GroupBuilder builder;
  builder.set("payload", StringAttribute(std::string(size > overhead ? size - overhead : 0, 'p')));
  const std::string payload = builder.build().getBinary();
  const uint64_t length = payload.size();
  return std::string(reinterpret_cast<const char*>(&length), 8) + payload;
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// CPU time of all threads of this process: less swayed by other load than
// the wall-clock rates.
double cpuSeconds() {
  timespec now;
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return now.tv_sec + now.tv_nsec / 1e9;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(p * values.size()))];
}

// How the floor's receiving thread takes the frames in.
enum class FloorReader {
  // As much as fits in one call (a whole frame, at least 64 KiB): the fewest
  // system calls a reader needs that hands frames on one at a time.
  Bulk,
  // One receive for the 8-byte header and one for the payload it announces,
  // as a reader does that knows nothing of what follows a frame.
  TwoReceives,
};

// Receives `total` bytes from `fd` the floor's way; false if the stream ended.
bool floorReceive(int fd, FloorReader reader, uint64_t total, std::vector<char>& buffer) {
  uint64_t count = 0;
  if (reader == FloorReader::Bulk) {
    ssize_t n;
    while (count < total &&
           (n = ::recv(fd, buffer.data(), std::min<uint64_t>(buffer.size(), total - count),
                       MSG_WAITALL)) > 0)
      count += n;
    return count == total;
  }
  while (count < total) {
    uint64_t length = 0;
    if (::recv(fd, &length, sizeof length, MSG_WAITALL) != sizeof length) return false;
    if (length > buffer.size()) buffer.resize(length);
    if (::recv(fd, buffer.data(), length, MSG_WAITALL) != static_cast<ssize_t>(length))
      return false;
    count += sizeof length + length;
  }
  return true;
}

// The floor: the same bytes over a plain loopback connection, without
// parsing or a callback, with the same roles as the channel: this thread
// sends, another one receives. Returns seconds for `frames` frames.
double floorRun(const std::string& frame, int frames, FloorReader reader, double* cpu = nullptr) {
  unsigned short port = 0;
  const int listener = listenLocal(port);
  const uint64_t total = static_cast<uint64_t>(frame.size()) * frames;
  Clock::time_point received;
  std::thread receiver([&] {
    const int fd = ::accept(listener, nullptr, nullptr);
    std::vector<char> buffer(std::max<size_t>(frame.size(), 65536));
    if (!floorReceive(fd, reader, total, buffer)) {
      std::fprintf(stderr, "floor: stream ended early\n");
      std::exit(1);
    }
    received = Clock::now();
    ::close(fd);
  });
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::exit(1);
  std::this_thread::sleep_for(std::chrono::milliseconds(5));  // let the receiver block
  const double cpuBegin = cpuSeconds();
  const Clock::time_point begin = Clock::now();
  for (int i = 0; i < frames; ++i) sendAll(fd, frame.data(), frame.size());
  receiver.join();
  if (cpu) *cpu = cpuSeconds() - cpuBegin;
  ::close(fd);
  ::close(listener);
  return seconds(received - begin);
}

struct Channel {
  int peer = -1;
  RerenderIPC ipc;
};

}  // namespace

int main(int argc, char** argv) {
  int runs = 5;
  std::string only;  // --size "1 MiB": one payload size alone
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) == "--runs") runs = std::max(1, std::atoi(argv[++i]));
    else if (std::string(argv[i]) == "--size") only = argv[++i];
  }

  XoRendererPluginSuite suite = countingSuite();
  Rendering::Manager manager(&suite, &suite, "", 0, 0, 0);

  unsigned short port = 0;
  const int listener = listenLocal(port);
  Channel channel;
  if (channel.ipc.connectData(&manager, "127.0.0.1", port) != 0) return 1;
  channel.peer = ::accept(listener, nullptr, nullptr);

  struct Size {
    const char* name;
    size_t bytes;
    int frames;
    int latencySamples;
  };
  const Size sizes[] = {{"64 B", 64, 100000, 2000},
                        {"4 KiB", 4096, 40000, 2000},
                        {"64 KiB", 65536, 4000, 1000},
                        {"1 MiB", 1 << 20, 400, 200}};

  // "ratio" compares MB/s with the bulk floor, "2-recv" frames/s with the
  // floor that makes two receives per frame; "cpu" is microseconds of CPU
  // per frame, sender and receiver together, for the channel and that floor.
  std::printf("%-7s %10s %10s %11s %11s %7s %11s %7s %9s %9s %8s %8s\n", "payload", "frames/s",
              "MB/s", "floor MB/s", "floor fr/s", "ratio", "2-recv fr/s", "2-recv", "lat p50",
              "lat p99", "cpu", "2-r cpu");
  for (const Size& size : sizes) {
    if (!only.empty() && only != size.name) continue;
    const std::string frame = makeFrame(size.bytes);
    std::vector<double> channelRates, floorRates, twoReceiveRates, channelCpu, twoReceiveCpu;
    for (int run = 0; run < runs; ++run) {
      // Alternating the two, so that load from elsewhere hits both alike.
      uint64_t start;
      {
        std::lock_guard<std::mutex> lock(countMutex);
        start = updates;
      }
      const double cpuBegin = cpuSeconds();
      const Clock::time_point begin = Clock::now();
      for (int i = 0; i < size.frames; ++i) sendAll(channel.peer, frame.data(), frame.size());
      const Clock::time_point end = waitForUpdates(start + size.frames);
      channelCpu.push_back((cpuSeconds() - cpuBegin) * 1e6 / size.frames);
      channelRates.push_back(size.frames / seconds(end - begin));
      floorRates.push_back(size.frames / floorRun(frame, size.frames, FloorReader::Bulk));
      double cpu = 0;
      twoReceiveRates.push_back(size.frames /
                                floorRun(frame, size.frames, FloorReader::TwoReceives, &cpu));
      twoReceiveCpu.push_back(cpu * 1e6 / size.frames);
    }

    std::vector<double> latencies;
    for (int i = 0; i < size.latencySamples; ++i) {
      uint64_t start;
      {
        std::lock_guard<std::mutex> lock(countMutex);
        start = updates;
      }
      const Clock::time_point written = Clock::now();
      sendAll(channel.peer, frame.data(), frame.size());
      latencies.push_back(seconds(waitForUpdates(start + 1) - written) * 1e6);
    }

    const double rate = median(channelRates), floorRate = median(floorRates);
    const double twoReceiveRate = median(twoReceiveRates);
    const double megabytes = frame.size() / 1e6;
    std::printf(
        "%-7s %10.0f %10.1f %11.1f %11.0f %6.0f%% %11.0f %6.0f%% %7.1fus %7.1fus %6.1fus %6.1fus\n",
        size.name, rate, rate * megabytes, floorRate * megabytes, floorRate, 100 * rate / floorRate,
        twoReceiveRate, 100 * rate / twoReceiveRate, median(latencies),
        percentile(latencies, 0.99), median(channelCpu), median(twoReceiveCpu));
    std::fflush(stdout);
  }
  channel.ipc.disconnect();
  ::close(channel.peer);
  ::close(listener);
  return 0;
}
