#include "ProbeProcess.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace probe {

std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string scratchFile(const std::string& name) {
  static const std::string dir = [] {
    char pattern[] = "/tmp/kindlet-platform-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  return dir + "/" + name;
}

Result run(const std::vector<std::string>& environment, const std::vector<std::string>& args) {
  const std::string outPath = scratchFile("probe.out");
  const std::string errPath = scratchFile("probe.err");
  std::vector<char*> argv{const_cast<char*>(PLATFORM_PROBE)};
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (const std::string& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);

  Result result;
  const pid_t pid = fork();
  if (pid == 0) {
    const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  if (pid < 0) return result;
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream in(outPath);
  std::stringstream text;
  text << in.rdbuf();
  result.out = text.str();
  result.errLines = readLines(errPath);
  return result;
}

}  // namespace probe
