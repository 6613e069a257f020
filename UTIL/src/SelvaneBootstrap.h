// Process set-up that does not depend on what the process is going to do.
// Each step runs exactly once per process, however often and from however
// many threads it is requested. A step whose body throws counts as not done
// and runs again on the next request, so a caller may treat a step as done
// only if the call returned normally.
#pragma once

#include <string>
#include <vector>

#include <boost/chrono/duration.hpp>
#include <boost/thread/once.hpp>

namespace XoLoggingHost {
class XoLoggerGlue;
}

// The guard shared by all steps: the body runs under the flag's once region.
// A body that throws leaves the region rolled back and the exception goes to
// the caller; a caller that was waiting then takes over and runs the body.
template <typename Body>
void runBootstrapStep(boost::once_flag& flag, Body&& body) {
  if (!boost::thread_detail::enter_once_region(flag)) return;
  try {
    body();
  } catch (...) {
    boost::thread_detail::rollback_once_region(flag);
    throw;
  }
  boost::thread_detail::commit_once_region(flag);
}

// Makes UTF-8 the narrow encoding of every boost::filesystem path.
void bootstrapPathLocale();

// Takes note of the install root that the parent passed. Only the first call
// counts; the step has no other visible effect.
void bootstrapInstallRoot(const std::string& root);

// Starts the watchdog on the process named by __SELVANE_CONTROLLING_PROCESS
// (if the variable is set and parses), then publishes this process in that
// variable as "<pid>;<creation time>" so that its children watch it in turn.
void bootstrapControllingProcess();

// Reads a value of that variable: a PID, any one character, a creation time,
// each as a stream extraction reads it. False when the extraction fails.
bool parseControllingProcessValue(const char* value, int* pid, long* creationTime);

// Body of the watchdog thread. Polls the controlling process every 500 ms and
// ends this process with status 1 once that process is gone; returns only for
// an error other than "no such process". `name` and `value` must stay
// readable for the life of the thread.
void watchControllingProcess(int pid,
                             boost::chrono::duration<long, boost::micro> creationTime,
                             const char* name, const char* value);

// Appends the items of a ":"-separated list to `out`, keeping what `out`
// holds. "" gives no item, "a::b" an empty one between, "a:" no empty last.
void splitPathList(const std::string& list, std::vector<std::string>& out);

// Appends the root's Usd module and resource folders to SELVANE_POST_PYTHONPATH
// and XOPXR_PLUGINPATH in the configuration store.
void bootstrapPostPaths();

// Starts the embedded interpreter with <root>/bin/python<X.Y> as its home and
// the root's module folders on sys.path, and publishes the home, the final
// path and the site-packages folder in the configuration store (the path in
// the environment too). Leaves the calling thread holding the interpreter's
// lock. For a parent of the render process: the render process expects these
// keys to be handed down and does not run this step itself.
void bootstrapInterpreter(const std::string& root);

// Install root of a process that is not told its root: the parent of the
// directory of /proc/self/exe (<root>/bin/<name>). Empty if the link cannot be
// read; the answer is cached either way.
std::string getInstallRoot();

// The logger of the bootstrap module, channel "BOOTSTRAP". Created at first
// use, never destroyed.
XoLoggingHost::XoLoggerGlue& getBootstrapLogger();

// Points FONTCONFIG_FILE at the installation's fonts.conf for the length of a
// scope. The previous value is put back only if it was non-empty: a variable
// that was unset (or empty) stays pointing at the installation afterwards.
class ScopedFontConfigFile {
 public:
  explicit ScopedFontConfigFile(const std::string& root);
  ~ScopedFontConfigFile();

  ScopedFontConfigFile(const ScopedFontConfigFile&) = delete;
  ScopedFontConfigFile& operator=(const ScopedFontConfigFile&) = delete;

 private:
  std::string previous;
};
