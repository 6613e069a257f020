// Whole-process tests of the controlling-process watchdog: real processes,
// real /proc, real exits.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
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
  int pid = -1;
  std::string published;
  int threads = 0;
};

ProbeReport parseReport(const std::string& line) {
  static const std::regex pattern("pid=(\\d+) published=(\\S+) threads=(\\d+)");
  std::smatch match;
  ProbeReport report;
  if (std::regex_match(line, match, pattern)) {
    report.pid = std::stoi(match[1]);
    report.published = match[2];
    report.threads = std::stoi(match[3]);
  }
  return report;
}

std::string identity(pid_t pid) {
  return std::to_string(pid) + ";" + std::to_string(getProcessCreationTime(pid, nullptr));
}

Child startProbe(const EnvironmentChanges& changes, int depth = 1) {
  return spawn({WATCHDOG_PROBE, std::to_string(depth)}, changes);
}

ProbeReport readReport(const Child& probe) {
  const boost::optional<std::string> line = readLine(probe.out);
  EXPECT_TRUE(line) << "the probe printed nothing";
  return line ? parseReport(*line) : ProbeReport();
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
struct DyingParentCase {
  const char* separator;
  bool leaveZombie;
};

class DyingParent : public ::testing::TestWithParam<DyingParentCase> {};

TEST_P(DyingParent, EndsTheProbeWithThreeLines) {
  Child parent = spawn({"/bin/sleep", "60"}, {}, false);
  const std::string value = std::to_string(parent.pid) + GetParam().separator +
                            std::to_string(getProcessCreationTime(parent.pid, nullptr));
  Child probe = startProbe({{kVariable, value}});
  const ProbeReport report = readReport(probe);
  EXPECT_EQ(report.threads, 1) << "the watchdog thread should be running";
  EXPECT_EQ(report.published, identity(probe.pid));

  kill(parent.pid, SIGKILL);
  if (GetParam().leaveZombie) {
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, parent.pid, &info, WEXITED | WNOWAIT), 0);
  } else {
    waitFor(parent.pid);
  }
  const Clock::time_point gone = Clock::now();
  const int status = waitFor(probe.pid);
  const long elapsed = millisecondsSince(gone);
  if (GetParam().leaveZombie) waitFor(parent.pid);

  expectExitStatus1(status);
  EXPECT_LE(elapsed, kPollMs + kSlackMs);
  EXPECT_EQ(splitLines(readToEnd(probe.err)), goneLines(parent.pid, value, probe.pid));
}

INSTANTIATE_TEST_SUITE_P(Watchdog, DyingParent,
                         ::testing::Values(DyingParentCase{";", false},
                                           DyingParentCase{";", true},
                                           DyingParentCase{":", false}),
                         [](const ::testing::TestParamInfo<DyingParentCase>& info) {
                           return std::string(info.param.leaveZombie ? "Zombie" : "Reaped") +
                                  (info.param.separator[0] == ';' ? "Semicolon" : "Colon");
                         });

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

TEST(Watchdog, ChainEndsOneLevelPerInterval) {
  // Orphans come back to this process, so their exits can be waited for.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);

  Child top = startProbe({{kVariable, boost::none}}, 3);
  std::vector<ProbeReport> reports;
  for (int i = 0; i < 3; ++i) reports.push_back(readReport(top));
  ASSERT_EQ(reports[0].pid, top.pid);
  EXPECT_EQ(reports[0].threads, 0);
  EXPECT_EQ(reports[1].threads, 1);
  EXPECT_EQ(reports[2].threads, 1);
  const pid_t middle = reports[1].pid;
  const pid_t bottom = reports[2].pid;

  kill(top.pid, SIGKILL);
  const Clock::time_point killed = Clock::now();
  std::map<pid_t, std::pair<int, long>> ended;  // pid -> status, ms after the kill
  while (ended.size() < 3) {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, 0);
    if (pid < 0) {
      ASSERT_EQ(errno, EINTR);
      continue;
    }
    ended[pid] = {status, millisecondsSince(killed)};
  }
  prctl(PR_SET_CHILD_SUBREAPER, 0);

  ASSERT_EQ(ended.count(middle), 1u);
  ASSERT_EQ(ended.count(bottom), 1u);
  expectExitStatus1(ended[middle].first);
  expectExitStatus1(ended[bottom].first);
  const long middleMs = ended[middle].second;
  const long bottomMs = ended[bottom].second;
  EXPECT_LE(middleMs, kPollMs + kSlackMs);
  EXPECT_GE(bottomMs, middleMs);
  EXPECT_LE(bottomMs - middleMs, kPollMs + kSlackMs);

  // Each survivor reported its own controlling process, in the order they died.
  const std::vector<std::string> lines = splitLines(readToEnd(top.err));
  std::vector<std::string> expected =
      goneLines(top.pid, reports[0].published, middle);
  const std::vector<std::string> second = goneLines(middle, reports[1].published, bottom);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_EQ(lines, expected);
  readToEnd(top.out);
}

}  // namespace
