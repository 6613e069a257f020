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

// Blocks until the child has exited, leaving it a zombie.
void waitUntilZombie(pid_t pid) {
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, pid, &info, WEXITED | WNOWAIT), 0);
}

void expectGone(pid_t pid) {
  boost::system::error_code error;
  EXPECT_EQ(getProcessCreationTime(pid, &error), -1);
  EXPECT_EQ(error.value(), 3);
  EXPECT_EQ(&error.category(), &boost::system::generic_category());
  EXPECT_EQ(getProcessCreationTime(pid, nullptr), -1);
}

TEST(ProcessCreationTime, LiveProcessesHaveStableOrderedTimes) {
  boost::system::error_code error = boost::system::errc::make_error_code(
      boost::system::errc::io_error);
  const int64_t own = getProcessCreationTime(getpid(), &error);
  EXPECT_FALSE(error) << error.message();
  EXPECT_GT(own, 0);
  EXPECT_EQ(getProcessCreationTime(getpid(), nullptr), own);

  Child child = spawn({"/bin/sleep", "60"}, {}, false);
  const int64_t childTime = getProcessCreationTime(child.pid, &error);
  EXPECT_FALSE(error);
  EXPECT_GE(childTime, own);
  EXPECT_EQ(getProcessCreationTime(child.pid, &error), childTime);
  kill(child.pid, SIGKILL);
  waitFor(child.pid);
}

TEST(ProcessCreationTime, ZombieAndVanishedProcessesAreGone) {
  Child child = spawn({"/bin/sleep", "60"}, {}, false);
  kill(child.pid, SIGKILL);
  waitUntilZombie(child.pid);
  expectGone(child.pid);
  waitFor(child.pid);
  expectGone(child.pid);
}

TEST(ProcessCreationTime, CommandNameWithABlankGivesAStableValue) {
  // The stat line is split at every blank, so such a name shifts the fields;
  // what matters is that the value is the same on every call.
  const boost::filesystem::path dir =
      boost::filesystem::temp_directory_path() / boost::filesystem::unique_path();
  boost::filesystem::create_directories(dir);
  const boost::filesystem::path copy = dir / "sleep with blank";
  boost::filesystem::copy_file("/bin/sleep", copy);
  boost::filesystem::permissions(copy, boost::filesystem::owner_all);

  Child child = spawn({copy.string(), "60"}, {}, false);
  boost::system::error_code error;
  const int64_t first = getProcessCreationTime(child.pid, &error);
  EXPECT_FALSE(error) << error.message();
  EXPECT_EQ(getProcessCreationTime(child.pid, &error), first);
  EXPECT_FALSE(error);

  kill(child.pid, SIGKILL);
  waitFor(child.pid);
  expectGone(child.pid);
  boost::filesystem::remove_all(dir);
}

}  // namespace
