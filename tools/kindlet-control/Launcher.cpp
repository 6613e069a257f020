#include "Launcher.h"

#include <patchlevel.h>
#include <sys/stat.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "UTIL/src/SelvaneBootstrap.h"
#include "XoConfiguration/Configuration.h"
#include "XoRenderServices/AnalyticsReport.h"
#include "base/ProcessCreationTime.h"
#include "base/ProcessMetrics.h"
#include "base/WaitForReadable.h"

using Arbolite3::Base::Subprocess;

namespace KindletControl {

namespace {

// Runs the two interpreter-path steps against `root` and returns what they
// published: the render process expects to inherit these keys.
std::map<std::string, std::string> interpreterKeys(const std::string& root) {
  bootstrapPostPaths();
  bootstrapInterpreter(root);
  std::map<std::string, std::string> keys;
  for (const char* key : {"SELVANE_INTERNAL_PYTHONHOME", "SELVANE_INTERNAL_PYTHONPATH",
                          "SELVANE_INTERNAL_PYTHON_SITEPACKAGES", "SELVANE_POST_PYTHONPATH",
                          "XOPXR_PLUGINPATH"})
    keys[key] = Arbolite3::XoConfiguration::v1::Config().get(key);
  return keys;
}

}  // namespace

Launcher::Launcher(std::string kindlet) : kindlet_(std::move(kindlet)) {
  if (kindlet_.empty()) kindlet_ = installRoot() + "/bin/kindlet";
}

std::string Launcher::installRoot() { return getInstallRoot(); }

std::map<std::string, std::string> Launcher::childEnvironment() {
  std::map<std::string, std::string> environment = Arbolite3::Base::getEnvironment();
  for (const auto& key : interpreterKeys(installRoot())) environment[key.first] = key.second;

  // Asset plug-ins shipped with the root, unless the caller chose others.
  environment.emplace("SELVANE_DEFAULT_ASSET_PLUGIN", "FileAsset");
  environment.emplace("SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN", "FileSequence");

  // kindlet ends itself when this program goes away.
  const int self = ::getpid();
  const int64_t created = Arbolite3::Base::getProcessCreationTime(self, nullptr);
  if (created >= 0)
    environment["__SELVANE_CONTROLLING_PROCESS"] =
        std::to_string(self) + ";" + std::to_string(created);
  return environment;
}

bool Launcher::start(const std::vector<std::string>& options,
                     const std::map<std::string, std::string>& extraEnvironment) {
  // An interpreter without its standard library ends this process inside
  // its start-up; a broken root gets a clear line instead.
  char version[16];
  std::snprintf(version, sizeof version, "%d.%d", PY_MAJOR_VERSION, PY_MINOR_VERSION);
  const std::string library =
      installRoot() + "/bin/python" + version + "/lib/python" + version + "/os.py";
  struct stat found;
  if (::stat(library.c_str(), &found) != 0) {
    whyNotStarted_ = "no interpreter home in " + installRoot() + " (" + library + " is missing)";
    std::cerr << "kindlet-control: " << whyNotStarted_ << std::endl;
    failedToStart_ = true;
    return false;
  }
  Subprocess::Options launch;
  launch.arguments.push_back(kindlet_);
  if (std::find(options.begin(), options.end(), "-selvaneRoot") == options.end()) {
    launch.arguments.push_back("-selvaneRoot");
    launch.arguments.push_back(installRoot());
  }
  launch.arguments.insert(launch.arguments.end(), options.begin(), options.end());
  launch.environment = childEnvironment();
  for (const auto& entry : extraEnvironment) launch.environment[entry.first] = entry.second;
  try {
    child_ = Subprocess::start(launch);
  } catch (const std::exception& error) {
    whyNotStarted_ = "cannot start " + kindlet_ + ": " + error.what();
    std::cerr << "kindlet-control: " << whyNotStarted_ << std::endl;
    failedToStart_ = true;
    return false;
  }
  started_ = true;
  if (child_.status() == Subprocess::StatusFailedToStart) {
    whyNotStarted_ = kindlet_;
    failedToStart_ = true;
    return false;
  }
  pid_ = child_.pid();
  // Taken while kindlet runs (it has only just exec'd): with the pid it names
  // kindlet's own report, never one of an earlier process with this pid.
  created_ = Arbolite3::Base::getProcessCreationTime(pid_, nullptr);
  return true;
}

int Launcher::waitFd() const { return started_ ? child_.waitFd() : -1; }

bool Launcher::ended() {
  if (!started_) return false;
  if (child_.status() != Subprocess::StatusRunning) return true;
  return child_.pollExit();
}

bool Launcher::waitFor(double seconds) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!ended()) {
    // Short slices: a grandchild that inherited the watch pipe would keep it
    // open after kindlet's own end, so the PID is asked as well.
    int slice = 200;
    if (seconds > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
      if (left <= 0) return false;
      if (left < slice) slice = static_cast<int>(left);
    }
    const int fd = child_.waitFd();
    // After the hang-up the descriptor stays ready: pause until the end can
    // be reaped instead of spinning.
    if (Arbolite3::Base::waitForReadable(&fd, 1, slice, nullptr) == fd)
      ::usleep(1000);
  }
  return true;
}

void Launcher::kill() {
  if (!started_ || ended()) return;
  child_.sendSignal(SIGKILL, Subprocess::TargetProcess);
  child_.waitExit();
}

std::string Launcher::analyticsWords() const {
  namespace analytics = Arbolite3::XoRenderServices::v1;
  const std::string directory =
      Arbolite3::XoConfiguration::v1::Config().get("SELVANE_ANALYTICS_DIR");
  if (directory.empty() || pid_ <= 0) return std::string();
  const std::string path = analytics::findAnalyticsReport(directory, pid_, created_);
  std::string cost;
  if (path.empty() || !analytics::readAnalyticsRecord(path, "selvane.process.cost", cost))
    return std::string();
  return path + " " + cost;
}

std::string Launcher::endWords() const {
  if (failedToStart_)
    return std::string(Subprocess::statusName(Subprocess::StatusFailedToStart)) + ": " +
           whyNotStarted_;
  const Subprocess::Status status = started_ ? child_.status() : Subprocess::StatusRunning;
  if (status == Subprocess::StatusRunning) return std::string();
  const int signal = child_.terminationSignal();
  std::string words = Subprocess::statusName(status);
  if (signal > 0)
    return words + ": signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
  return words + ": exit status " + std::to_string(child_.exitCode());
}

int Launcher::reportEnd() {
  if (failedToStart_) {
    std::cerr << "kindlet-control: kindlet "
              << Subprocess::statusName(Subprocess::StatusFailedToStart) << ": " << kindlet_
              << std::endl;
    return kExitFailedToStart;
  }
  const std::string analytics = analyticsWords();
  if (!analytics.empty())
    std::cerr << "kindlet-control: analytics report " << analytics << std::endl;
  if (child_.status() == Subprocess::StatusSucceeded) return 0;
  std::cerr << "kindlet-control: kindlet " << endWords() << std::endl;
  const int signal = child_.terminationSignal();
  return signal > 0 ? 128 + signal : child_.exitCode();
}

int EndReport::operator()() {
  if (!printed_) {
    printed_ = true;
    status_ = child_.reportEnd();
    if (child_.terminationSignal() > 0)
      std::cout << "kindlet killed by signal " << child_.terminationSignal() << std::endl;
    else
      std::cout << "kindlet exited with status " << status_ << std::endl;
  }
  return status_;
}

}  // namespace KindletControl
