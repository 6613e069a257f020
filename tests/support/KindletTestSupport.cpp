#include "KindletTestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "XoConfiguration/Configuration.h"
#include "XoLoggingHost/XoLoggerGlue.h"

extern char** environ;

namespace kindlettest {

std::string testRoot() { return KINDLET_TEST_ROOT; }

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

// ---- child processes ----

namespace {

void closeIfOpen(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Starts `path` with `argv` (argv[0] as given) and exactly `environment`.
Child spawnEntries(const std::string& path, const std::vector<std::string>& argv,
                   std::vector<std::string> environment, bool capture) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(&entry[0]);
  envp.push_back(nullptr);

  int outPipe[2] = {-1, -1};
  int errPipe[2] = {-1, -1};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  if (capture) {
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
      throw std::runtime_error(std::string("pipe: ") + strerror(errno));
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  }
  // The child starts with no blocked signals, whatever this thread holds.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  Child child;
  const int result =
      posix_spawn(&child.pid, path.c_str(), &actions, &attributes, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (capture) {
    close(outPipe[1]);
    close(errPipe[1]);
    child.out = outPipe[0];
    child.err = errPipe[0];
  }
  if (result != 0) throw std::runtime_error("posix_spawn " + path + ": " + strerror(result));
  return child;
}

std::vector<std::string> entriesOf(const std::map<std::string, std::string>& environment) {
  std::vector<std::string> entries;
  for (const auto& variable : environment) entries.push_back(variable.first + "=" + variable.second);
  return entries;
}

// Reads both streams of `child` to their end, kills it on time-out or when
// `killWhen` says so, and waits for it.
RunResult collect(Child child, std::chrono::milliseconds timeout, const KillCondition& killWhen) {
  RunResult result;
  result.pid = child.pid;
  int fds[2] = {child.out, child.err};
  std::string* sinks[2] = {&result.out, &result.err};
  const auto deadline = Clock::now() + timeout;
  while (fds[0] >= 0 || fds[1] >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      kill(child.pid, SIGKILL);
      result.timedOut = true;
      break;
    }
    if (killWhen && killWhen()) {
      kill(child.pid, SIGKILL);
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
  const int status = waitFor(child.pid);
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

}  // namespace

Child spawn(const std::vector<std::string>& argv, const EnvironmentChanges& changes,
            bool capture) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    if (changes.count(text.substr(0, text.find('='))) == 0) environment.push_back(text);
  }
  for (const auto& change : changes)
    if (change.second) environment.push_back(change.first + "=" + *change.second);
  return spawnEntries(argv.at(0), argv, std::move(environment), capture);
}

std::string readToEnd(int& fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t count = read(fd, buffer, sizeof(buffer));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  closeIfOpen(fd);
  return text;
}

boost::optional<std::string> readLine(int fd) {
  std::string line;
  char c;
  for (;;) {
    const ssize_t count = read(fd, &c, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return line.empty() ? boost::none : boost::optional<std::string>(line);
    if (c == '\n') return line;
    line += c;
  }
}

int waitFor(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

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
  std::vector<std::string> argv = arguments;
  if (argv.empty()) argv.push_back(program);
  return collect(spawnEntries(program, argv, entriesOf(environment), true), timeout, killWhen);
}

RunResult runWithEnvironment(const std::vector<std::string>& argv,
                             const std::map<std::string, std::string>& environment,
                             std::chrono::milliseconds timeout) {
  return collect(spawnEntries(argv.at(0), argv, entriesOf(environment), true), timeout, nullptr);
}

RunResult runKindlet(const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& extraEnvironment,
                     std::chrono::milliseconds timeout, const KillCondition& killWhen) {
  const std::string kindlet = testRoot() + "/bin/kindlet";
  std::vector<std::string> argv{kindlet};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return run(kindlet, argv, extraEnvironment, timeout, killWhen);
}

// ---- text and files ----

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream stream(text);
  while (std::getline(stream, line)) lines.push_back(line);
  return lines;
}

std::string readFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

std::vector<std::string> readLines(const std::string& path) { return splitLines(readFile(path)); }

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

const TempDir& scratch() {
  static TempDir dir;
  return dir;
}

std::string logToScratch(const std::string& level) {
  const std::string path = scratch().file("log.txt");
  auto& config = Arbolite3::XoConfiguration::v1::Config();
  config.set("SELVANE_LOG_FILE", path);
  if (!level.empty()) {
    config.set("SELVANE_LOG_LEVEL", level);
    XoLoggingHost::XoLoggerGlue::reloadThreshold();
  }
  return path;
}

std::vector<std::string> newLogLines() {
  static size_t seen = 0;
  const std::vector<std::string> lines = readLines(scratch().file("log.txt"));
  std::vector<std::string> fresh(lines.begin() + std::min(seen, lines.size()), lines.end());
  seen = lines.size();
  return fresh;
}

// ---- the loopback peer ----

LocalListener::LocalListener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (!fd_ || ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(fd_.get(), 16) != 0 ||
      ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("cannot listen on 127.0.0.1");
  port_ = ntohs(address.sin_port);
}

Arbolite3::Base::FileDescriptor LocalListener::accept(std::chrono::milliseconds limit) {
  pollfd polled{fd_.get(), POLLIN, 0};
  if (poll(&polled, 1, static_cast<int>(limit.count())) != 1) return {};
  return Arbolite3::Base::FileDescriptor(::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

unsigned short LocalListener::unusedPort() { return LocalListener().port(); }

void sendAll(int fd, const void* data, size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t sent = ::send(fd, bytes, size, MSG_NOSIGNAL);
    if (sent <= 0) throw std::runtime_error("send failed");
    bytes += sent;
    size -= static_cast<size_t>(sent);
  }
}

void sendAll(int fd, const std::string& bytes) { sendAll(fd, bytes.data(), bytes.size()); }

void resetConnection(Arbolite3::Base::FileDescriptor& fd) {
  const linger abort = {1, 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  fd.reset();
}

std::string dataFrame(const std::string& payload) {
  std::string frame(8, '\0');
  for (int i = 0; i < 8; ++i)
    frame[i] = static_cast<char>((static_cast<uint64_t>(payload.size()) >> (8 * i)) & 0xff);
  return frame + payload;
}

std::string controlRecord(const std::string& text) {
  std::string record(256, '\0');
  record.replace(0, std::min<size_t>(text.size(), 256), text.substr(0, 256));
  return record;
}

Arbolite3::internal::XoAttribute::GroupAttribute stringGroup(
    const std::vector<std::pair<std::string, std::string>>& children) {
  using namespace Arbolite3::internal::XoAttribute;
  GroupBuilder builder;
  for (const auto& child : children) builder.set(child.first, StringAttribute(child.second));
  return builder.build();
}

// ---- the recording renderer's file ----

std::vector<RecordLine> readRecordFile(const std::string& path) {
  std::vector<RecordLine> lines;
  for (const std::string& text : readLines(path)) {
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
