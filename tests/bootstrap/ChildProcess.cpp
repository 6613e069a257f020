#include "ChildProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

extern char** environ;

namespace bootstraptest {

namespace {

Child spawnEntries(const std::vector<std::string>& argv, std::vector<std::string> environment,
                   bool capture) {

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
  if (capture) {
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  }
  Child child;
  const int result =
      posix_spawn(&child.pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (capture) {
    close(outPipe[1]);
    close(errPipe[1]);
    child.out = outPipe[0];
    child.err = errPipe[0];
  }
  if (result != 0) throw std::runtime_error("posix_spawn " + argv[0] + ": " + strerror(result));
  return child;
}

}  // namespace

Child spawn(const std::vector<std::string>& argv, const EnvironmentChanges& changes,
            bool capture) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    if (changes.count(text.substr(0, text.find('='))) == 0) environment.push_back(text);
  }
  for (const auto& change : changes) {
    if (change.second) environment.push_back(change.first + "=" + *change.second);
  }
  return spawnEntries(argv, std::move(environment), capture);
}

Child spawnWithEnvironment(const std::vector<std::string>& argv,
                           const std::map<std::string, std::string>& environment,
                           bool capture) {
  std::vector<std::string> entries;
  for (const auto& variable : environment) {
    entries.push_back(variable.first + "=" + variable.second);
  }
  return spawnEntries(argv, std::move(entries), capture);
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
  close(fd);
  fd = -1;
  return text;
}

boost::optional<std::string> readLine(int fd) {
  // Byte by byte, so that nothing of the next line is consumed.
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

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace bootstraptest
