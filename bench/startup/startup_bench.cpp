// Start-up cost of kindlet: wall time from exec to exit of a complete batch
// render with the "null" renderer, against `python3.11 -c pass` measured in
// the same run as the floor that the embedded interpreter sets. Also the peak
// resident memory of each (wait4 rusage).
//
//   startup_bench [--root DIR] [--optree FILE] [--runs N] [--python PATH]
//
// The two commands alternate, so that a change in machine load hits both.
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Sample {
  double milliseconds;
  double cpuMilliseconds;  // user + system: far less sensitive to load than wall time
  long maxRssKiB;
};

struct Command {
  std::vector<std::string> argv;
  std::vector<std::string> environment;
};

Sample runOnce(const Command& command) {
  std::vector<char*> argv;
  for (const std::string& arg : command.argv) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& entry : command.environment) {
    envp.push_back(const_cast<char*>(entry.c_str()));
  }
  envp.push_back(nullptr);

  // The children's output is of no interest and must not cost terminal time.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);

  const auto start = std::chrono::steady_clock::now();
  pid_t pid;
  const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    std::fprintf(stderr, "cannot start %s: %s\n", argv[0], std::strerror(error));
    std::exit(2);
  }
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  const auto end = std::chrono::steady_clock::now();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "%s ended with wait status %d\n", argv[0], status);
    std::exit(2);
  }
  const auto cpu = [](const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
  return {std::chrono::duration<double, std::milli>(end - start).count(),
          cpu(usage.ru_utime) + cpu(usage.ru_stime), usage.ru_maxrss};
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

void report(const char* name, const std::vector<Sample>& samples) {
  std::vector<double> times;
  std::vector<double> cpu;
  std::vector<double> rss;
  for (const Sample& sample : samples) {
    times.push_back(sample.milliseconds);
    cpu.push_back(sample.cpuMilliseconds);
    rss.push_back(static_cast<double>(sample.maxRssKiB));
  }
  std::printf("%-8s median %7.1f ms  min %7.1f ms  max %7.1f ms  cpu median %6.1f ms  "
              "peak RSS median %6.0f KiB\n",
              name, median(times), *std::min_element(times.begin(), times.end()),
              *std::max_element(times.begin(), times.end()), median(cpu), median(rss));
}

}  // namespace

int main(int argc, char** argv) {
  std::string root = KINDLET_BENCH_ROOT;
  std::string opTree;
  std::string python = "/usr/bin/python3.11";
  int runs = 30;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--root") root = argv[i + 1];
    else if (name == "--optree") opTree = argv[i + 1];
    else if (name == "--runs") runs = std::max(1, std::atoi(argv[i + 1]));
    else if (name == "--python") python = argv[i + 1];
    else {
      std::fprintf(stderr, "unknown option %s\n", name.c_str());
      return 2;
    }
  }
  if (opTree.empty()) opTree = root + "/share/kindlet/examples/scene.optree.json";
  const std::string tempDir = "/tmp";

  // What a real parent hands down (see docs/bootstrap.md).
  const std::vector<std::string> kindletEnvironment = {
      "PATH=/usr/bin:/bin",
      "SELVANE_INTERNAL_PYTHONHOME=/usr",
      "SELVANE_INTERNAL_PYTHONPATH=/usr/lib/python311.zip:/usr/lib/python3.11:"
      "/usr/lib/python3.11/lib-dynload:" + root + "/bin/python",
      "SELVANE_DEFAULT_ASSET_PLUGIN=FileAsset",
      "SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN=FileSequence",
  };
  const Command kindlet{{root + "/bin/kindlet", "-selvaneRoot", root, "-tempDir", tempDir,
                         "-arbolite3OpTree", opTree, "-renderer", "null",
                         "-renderMethodName", "diskRender"},
                        kindletEnvironment};
  const Command floor{{python, "-c", "pass"}, {"PATH=/usr/bin:/bin"}};

  // One of each first, unmeasured, so that both start from a warm page cache.
  runOnce(kindlet);
  runOnce(floor);
  std::vector<Sample> kindletSamples;
  std::vector<Sample> floorSamples;
  for (int i = 0; i < runs; ++i) {
    kindletSamples.push_back(runOnce(kindlet));
    floorSamples.push_back(runOnce(floor));
  }

  std::printf("runs: %d each, alternating\n", runs);
  report("kindlet", kindletSamples);
  report("python", floorSamples);
  std::vector<double> k, p, kCpu, pCpu;
  for (const Sample& s : kindletSamples) {
    k.push_back(s.milliseconds);
    kCpu.push_back(s.cpuMilliseconds);
  }
  for (const Sample& s : floorSamples) {
    p.push_back(s.milliseconds);
    pCpu.push_back(s.cpuMilliseconds);
  }
  std::printf("ratio of medians: %.2f (target <= 1.20), of cpu medians: %.2f\n",
              median(k) / median(p), median(kCpu) / median(pCpu));
  return 0;
}
