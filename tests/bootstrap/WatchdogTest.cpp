// Whole-process tests of the controlling-process watchdog: real processes,
// real /proc, real exits.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "KindletTestSupport.h"
#include "base/ProcessCreationTime.h"

using Arbolite3::Base::getProcessCreationTime;
using namespace kindlettest;

namespace {

const char* const kVariable = "__SELVANE_CONTROLLING_PROCESS";
// One polling interval, and what a loaded (or sanitised) machine may add.
const long kPollMs = 500;
const long kSlackMs = 500;

struct ProbeReport {
  std::string published;  // the variable as the step left it
  int threads = -1;       // threads the step started
};

std::string identity(pid_t pid) {
  return std::to_string(pid) + ";" + std::to_string(getProcessCreationTime(pid, nullptr));
}

Child startProbe(const EnvironmentChanges& changes) { return spawn({WATCHDOG_PROBE}, changes); }

ProbeReport readReport(const Child& probe) {
  static const std::regex pattern("pid=\\d+ published=(\\S+) threads=(\\d+)");
  const boost::optional<std::string> line = readLine(probe.out);
  EXPECT_TRUE(line) << "the probe printed nothing";
  std::smatch match;
  ProbeReport report;
  if (line && std::regex_match(*line, match, pattern)) report = {match[1], std::stoi(match[2])};
  return report;
}

std::vector<std::string> goneLines(pid_t parent, const std::string& value, pid_t probe) {
  return {
      "[BOOTSTRAP] ERROR: Failed to determine existence of parent process with the given "
      "PID " + std::to_string(parent) + ": \"No such process\"",
      "[BOOTSTRAP] INFO: The PID of the parent process is defined by the value of the "
      "internal __SELVANE_CONTROLLING_PROCESS environment variable: \"" + value + "\"",
      "[BOOTSTRAP] WARNING: Parent process not found: PID " + std::to_string(parent) +
          ". Terminating this `watchdog_probe` process (PID " + std::to_string(probe) + ")...",
  };
}

void expectExitStatus1(int status) {
  EXPECT_TRUE(WIFEXITED(status)) << "raw status " << status;
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

void killAndReap(Child& probe) {
  kill(probe.pid, SIGKILL);
  waitFor(probe.pid);
}

// The controlling process dies; the watched probe must follow within one
// interval, with the three lines. The parent is either reaped at once or
// left a zombie, and the separator may be any non-blank character.
TEST(Watchdog, DyingParentEndsTheProbeWithThreeLines) {
  for (const auto& c : {std::make_pair(";", false), std::make_pair(";", true), std::make_pair(":", false)}) {
    const bool leaveZombie = c.second;
    SCOPED_TRACE(std::string(c.first) + (leaveZombie ? " zombie" : " reaped"));
    Child parent = spawn({"/bin/sleep", "60"}, {}, false);
    const std::string value = std::to_string(parent.pid) + c.first +
                              std::to_string(getProcessCreationTime(parent.pid, nullptr));
    Child probe = startProbe({{kVariable, value}});
    const ProbeReport report = readReport(probe);
    EXPECT_EQ(report.threads, 1) << "the watchdog thread should be running";
    EXPECT_EQ(report.published, identity(probe.pid));

    kill(parent.pid, SIGKILL);
    siginfo_t info;
    if (leaveZombie) {
      ASSERT_EQ(waitid(P_PID, parent.pid, &info, WEXITED | WNOWAIT), 0);
    } else {
      waitFor(parent.pid);
    }
    const Clock::time_point gone = Clock::now();
    const int status = waitFor(probe.pid);
    const long elapsed = millisecondsSince(gone);
    if (leaveZombie) waitFor(parent.pid);

    expectExitStatus1(status);
    EXPECT_LE(elapsed, kPollMs + kSlackMs);
    EXPECT_EQ(splitLines(readToEnd(probe.err)), goneLines(parent.pid, value, probe.pid));
    readToEnd(probe.out);
  }
}

TEST(Watchdog, AnotherProcessUnderTheSamePidEndsSilently) {
  Child parent = spawn({"/bin/sleep", "60"}, {}, false);
  const int64_t time = getProcessCreationTime(parent.pid, nullptr);
  const std::string pid = std::to_string(parent.pid);
  // A wrong time, and a blank separator, which makes the time parse wrongly.
  for (const std::string& value :
       {pid + ";" + std::to_string(time + 1), pid + " " + std::to_string(time)}) {
    SCOPED_TRACE(value);
    Child probe = startProbe({{kVariable, value}});
    expectExitStatus1(waitFor(probe.pid));
    EXPECT_EQ(readToEnd(probe.err), "");
    readToEnd(probe.out);
  }
  kill(parent.pid, SIGKILL);
  waitFor(parent.pid);
}

TEST(Watchdog, NoUsableValueMeansNoThreadButThisProcessIsPublished) {
  const std::string parseMessage =
      "[BOOTSTRAP] ERROR: Failed to parse value of internal __SELVANE_CONTROLLING_PROCESS "
      "environment variable: ";
  const std::vector<std::pair<boost::optional<std::string>, std::string>> cases = {
      {boost::none, ""},
      {std::string("abc;123"), parseMessage + "\"abc;123\"\n"},
      {std::string(""), parseMessage + "\"\"\n"},
      {std::string("123"), parseMessage + "\"123\"\n"},
  };
  for (const auto& testCase : cases) {
    SCOPED_TRACE(testCase.first ? "value \"" + *testCase.first + "\"" : "unset");
    Child probe = startProbe({{kVariable, testCase.first}});
    const ProbeReport report = readReport(probe);
    EXPECT_EQ(report.threads, 0);
    EXPECT_EQ(report.published, identity(probe.pid));
    killAndReap(probe);
    EXPECT_EQ(readToEnd(probe.err), testCase.second);
    readToEnd(probe.out);
  }
}

}  // namespace
