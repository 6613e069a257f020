#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "KindletTestSupport.h"
#include "base/ProcessCreationTime.h"

using Arbolite3::Base::getProcessCreationTime;
using namespace kindlettest;

namespace {

void expectGone(pid_t pid) {
  boost::system::error_code error;
  EXPECT_EQ(getProcessCreationTime(pid, &error), -1);
  EXPECT_EQ(error.value(), ESRCH);
  EXPECT_EQ(&error.category(), &boost::system::generic_category());
  EXPECT_EQ(getProcessCreationTime(pid, nullptr), -1);
}

// Later processes have later times, stable while they live; a zombie counts
// as gone, as does a reaped process. (The watchdog's tests compare values
// taken in different processes.)
TEST(ProcessCreationTime, StableWhileAliveThenGone) {
  const int64_t own = getProcessCreationTime(getpid(), nullptr);
  EXPECT_GT(own, 0);
  // The stat line is split at every blank, so a command name with one shifts
  // the fields: its value must still be the same on every call.
  const TempDir dir;
  const std::string blank = dir.file("sleep with blank");
  boost::filesystem::copy_file("/bin/sleep", blank);
  boost::filesystem::permissions(blank, boost::filesystem::owner_all);
  for (const std::string& program : {std::string("/bin/sleep"), blank}) {
    SCOPED_TRACE(program);
    Child child = spawn({program, "60"}, {}, false);
    boost::system::error_code error = boost::system::errc::make_error_code(boost::system::errc::io_error);
    const int64_t first = getProcessCreationTime(child.pid, &error);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(getProcessCreationTime(child.pid, &error), first);
    kill(child.pid, SIGKILL);
    if (program == blank) {
      waitFor(child.pid);
      expectGone(child.pid);
      continue;
    }
    EXPECT_GE(first, own);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, child.pid, &info, WEXITED | WNOWAIT), 0);  // a zombie now
    expectGone(child.pid);
    waitFor(child.pid);
    expectGone(child.pid);
  }
}

}  // namespace
