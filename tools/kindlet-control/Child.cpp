#include "Child.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <thread>

#include "base/ExecutablePath.h"
#include "base/ProcessCreationTime.h"

extern char** environ;

namespace KindletControl {

std::string kindletExecutable(const std::string& path) {
  if (!path.empty()) return path;
  const std::string self = Arbolite3::Base::getExecutablePath();
  return self.substr(0, self.rfind('/') + 1) + "kindlet";
}

bool Child::start(const std::vector<std::string>& argumentList,
                  const std::vector<std::string>& unset, const std::vector<std::string>& extra) {
  std::vector<std::string> arguments = argumentList;
  const int self = ::getpid();
  const int64_t created = Arbolite3::Base::getProcessCreationTime(self, nullptr);
  std::vector<std::string> environment;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    bool keep = text.rfind("__SELVANE_CONTROLLING_PROCESS=", 0) != 0;
    for (const std::string& name : unset) keep = keep && text.rfind(name + "=", 0) != 0;
    if (keep) environment.push_back(text);
  }
  environment.insert(environment.end(), extra.begin(), extra.end());
  if (created >= 0)
    environment.push_back("__SELVANE_CONTROLLING_PROCESS=" + std::to_string(self) + ";" +
                          std::to_string(created));

  // Everything the child needs is built before fork: between fork and exec
  // only async-signal-safe calls.
  std::vector<char*> argv, envp;
  for (std::string& text : arguments) argv.push_back(&text[0]);
  argv.push_back(nullptr);
  for (std::string& text : environment) envp.push_back(&text[0]);
  envp.push_back(nullptr);

  pid_ = ::fork();
  if (pid_ < 0) {
    std::cerr << "kindlet-control: fork: " << std::strerror(errno) << std::endl;
    return false;
  }
  if (pid_ == 0) {
    ::execve(argv[0], argv.data(), envp.data());
    static const char failed[] = "kindlet-control: cannot run kindlet\n";
    ssize_t ignored = ::write(2, failed, sizeof failed - 1);
    (void)ignored;
    ::_exit(127);
  }
  std::cout << "kindlet pid " << pid_ << std::endl;
  return true;
}

bool Child::waitFor(double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!poll(seconds > 0 ? 20 : -1))
    if (seconds > 0 && std::chrono::steady_clock::now() >= deadline) return false;
  return true;
}

void Child::kill() {
  if (started() && !ended()) {
    ::kill(pid_, SIGKILL);
    poll(-1);
  }
}

int Child::report() {
  if (!reported_) {
    if (WIFEXITED(status_))
      std::cout << "kindlet exited with status " << WEXITSTATUS(status_) << std::endl;
    else
      std::cout << "kindlet killed by signal " << WTERMSIG(status_) << std::endl;
    reported_ = true;
  }
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
}

bool Child::poll(int milliseconds) {
  if (done_) return true;
  if (milliseconds < 0) {
    pid_t result;
    do {
      result = ::waitpid(pid_, &status_, 0);
    } while (result < 0 && errno == EINTR);
    return done_ = result == pid_;
  }
  for (int waited = 0;; waited += 5) {
    if (::waitpid(pid_, &status_, WNOHANG) == pid_) return done_ = true;
    if (waited >= milliseconds) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace KindletControl
