#include "KindletTestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kindlettest {

std::string testRoot() { return KINDLET_TEST_ROOT; }

std::string kindletPath() { return testRoot() + "/bin/kindlet"; }

std::map<std::string, std::string> parentEnvironment() {
  std::map<std::string, std::string> environment;
  const char* path = getenv("PATH");
  environment["PATH"] = path != nullptr ? path : "/usr/bin:/bin";
  environment["SELVANE_INTERNAL_PYTHONHOME"] = "/usr";
  environment["SELVANE_INTERNAL_PYTHONPATH"] =
      "/usr/lib/python311.zip:/usr/lib/python3.11:/usr/lib/python3.11/lib-dynload:" +
      testRoot() + "/bin/python";
  environment["SELVANE_DEFAULT_ASSET_PLUGIN"] = "TestAssetPlugin";
  environment["SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN"] = "TestFileSequencePlugin";
  // Sanitizer builds: the child must find the same options as the test.
  for (const char* key : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
    const char* value = getenv(key);
    if (value != nullptr) environment[key] = value;
  }
  // The leak check of a sanitizer build must not count the interpreter that
  // kindlet never finalises.
  const std::string suppressions =
      "suppressions=" + std::string(KINDLET_SOURCE_DIR) + "/tests/support/lsan.supp";
  std::string& lsan = environment["LSAN_OPTIONS"];
  lsan = lsan.empty() ? suppressions : lsan + ":" + suppressions;
  return environment;
}

namespace {

void closeIfOpen(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

}  // namespace

RunResult run(const std::string& program, const std::vector<std::string>& arguments,
              const std::map<std::string, std::string>& extraEnvironment,
              std::chrono::milliseconds timeout, const KillCondition& killWhen) {
  std::map<std::string, std::string> environment = parentEnvironment();
  for (const auto& entry : extraEnvironment) {
    if (entry.second.empty())
      environment.erase(entry.first);
    else
      environment[entry.first] = entry.second;
  }
  // Everything the child needs is prepared before fork: after it, only
  // async-signal-safe calls.
  std::vector<std::string> environmentTexts;
  for (const auto& entry : environment) environmentTexts.push_back(entry.first + "=" + entry.second);
  std::vector<char*> envp;
  for (std::string& text : environmentTexts) envp.push_back(&text[0]);
  envp.push_back(nullptr);
  std::vector<std::string> argvTexts = arguments;
  if (argvTexts.empty()) argvTexts.push_back(program);
  std::vector<char*> argv;
  for (std::string& text : argvTexts) argv.push_back(&text[0]);
  argv.push_back(nullptr);

  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("pipe: ") + strerror(errno));

  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (pid == 0) {
    // The child starts with no blocked signals, whatever this thread holds.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    int devNull = open("/dev/null", O_RDONLY);
    if (devNull >= 0) dup2(devNull, 0);
    execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);

  RunResult result;
  result.pid = pid;
  int fds[2] = {outPipe[0], errPipe[0]};
  std::string* sinks[2] = {&result.out, &result.err};
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (fds[0] >= 0 || fds[1] >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      kill(pid, SIGKILL);
      result.timedOut = true;
      break;
    }
    if (killWhen && killWhen()) {
      kill(pid, SIGKILL);
      result.killedEarly = true;
      break;
    }
    if (killWhen && left.count() > 20) left = std::chrono::milliseconds(20);
    pollfd polled[2];
    nfds_t count = 0;
    int which[2];
    for (int i = 0; i < 2; ++i) {
      if (fds[i] < 0) continue;
      polled[count] = {fds[i], POLLIN, 0};
      which[count++] = i;
    }
    int ready = poll(polled, count, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) break;
    for (nfds_t k = 0; k < count; ++k) {
      if (polled[k].revents == 0) continue;
      char buffer[65536];
      ssize_t got = read(polled[k].fd, buffer, sizeof buffer);
      if (got > 0)
        sinks[which[k]]->append(buffer, static_cast<size_t>(got));
      else if (got == 0 || errno != EINTR)
        closeIfOpen(fds[which[k]]);
    }
  }
  closeIfOpen(fds[0]);
  closeIfOpen(fds[1]);

  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

RunResult runKindlet(const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& extraEnvironment,
                     std::chrono::milliseconds timeout, const KillCondition& killWhen) {
  std::vector<std::string> argv{kindletPath()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return run(kindletPath(), argv, extraEnvironment, timeout, killWhen);
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream stream(text);
  while (std::getline(stream, line)) lines.push_back(line);
  return lines;
}

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base ? base : "/tmp") + "/kindlet-test-XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr)
    throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
  directory = pattern;
}

TempDir::~TempDir() {
  boost::system::error_code ignored;
  boost::filesystem::remove_all(directory, ignored);
}

std::string TempDir::file(const std::string& name) const { return directory + "/" + name; }

std::string TempDir::write(const std::string& name, const std::string& content) const {
  std::string path = file(name);
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream << content;
  if (!stream) throw std::runtime_error("cannot write " + path);
  return path;
}

std::vector<RecordLine> readRecordFile(const std::string& path) {
  std::vector<RecordLine> lines;
  std::ifstream stream(path);
  std::string text;
  while (std::getline(stream, text)) {
    RecordLine line;
    size_t first = text.find(' ');
    line.slot = text.substr(0, first);
    if (first != std::string::npos) {
      size_t second = text.find(' ', first + 1);
      line.tid = std::strtol(text.substr(first + 1, second - first - 1).c_str(), nullptr, 10);
      if (second != std::string::npos) line.details = text.substr(second + 1);
    }
    lines.push_back(line);
  }
  return lines;
}

std::vector<std::string> recordedSlots(const std::vector<RecordLine>& lines) {
  std::vector<std::string> slots;
  for (const RecordLine& line : lines) slots.push_back(line.slot);
  return slots;
}

}  // namespace kindlettest
