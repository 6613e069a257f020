#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <set>
#include <thread>

#include <boost/optional/optional_io.hpp>
#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include "base/DescriptorFlags.h"
#include "base/DescriptorPairs.h"
#include "base/Environment.h"
#include "base/ExecutablePath.h"
#include "base/RetryingIO.h"
#include "base/WaitForReadable.h"
#include "base/WakeEvent.h"

using namespace Arbolite3::Base;

namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

void onSignal(int) {}

}  // namespace

TEST(RetryingIO, SignalDuringBlockingReadIsInvisible) {
  FileDescriptor readEnd, writeEnd;
  createPipe(readEnd, writeEnd);
  // Without SA_RESTART the blocked read fails with EINTR at each signal.
  struct sigaction action = {}, previous;
  action.sa_handler = onSignal;
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
  const pthread_t reader = ::pthread_self();
  std::thread helper([&] {
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ::pthread_kill(reader, SIGUSR1);
    }
    ASSERT_EQ(::write(writeEnd.get(), "xyz", 3), 3);
  });
  char buffer[8];
  boost::system::error_code error;
  const ssize_t count = readRetrying(readEnd.get(), buffer, sizeof buffer, &error);
  helper.join();
  ::sigaction(SIGUSR1, &previous, nullptr);
  EXPECT_EQ(count, 3);
  EXPECT_FALSE(error);

  EXPECT_EQ(readRetrying(-1, buffer, 1, &error), -1);
  EXPECT_EQ(error, boost::system::error_code(EBADF, boost::system::system_category()));
}

TEST(DescriptorHelpers, FlagsPairsAndSockets) {
  FileDescriptor readEnd, writeEnd;
  createPipe(readEnd, writeEnd);
  EXPECT_NE(::fcntl(readEnd.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(::fcntl(writeEnd.get(), F_GETFD) & FD_CLOEXEC, 0);
  setInheritable(readEnd.get(), true);
  EXPECT_EQ(::fcntl(readEnd.get(), F_GETFD) & FD_CLOEXEC, 0);
  setNonBlocking(readEnd.get(), true);
  char byte;
  boost::system::error_code error;
  EXPECT_EQ(readRetrying(readEnd.get(), &byte, 1, &error), -1);
  EXPECT_EQ(error.value(), EAGAIN);

  // Creating into outputs that hold descriptors closes those; the pair stays
  // inheritable.
  const int oldRead = readEnd.get(), oldWrite = writeEnd.get();
  createSocketPair(readEnd, writeEnd);
  EXPECT_TRUE(isSocket(readEnd.get()));
  EXPECT_EQ(::fcntl(readEnd.get(), F_GETFD) & FD_CLOEXEC, 0);
  for (int old : {oldRead, oldWrite}) {
    if (old != readEnd.get() && old != writeEnd.get()) {
      EXPECT_FALSE(isOpen(old));
    }
  }

  const int closed = readEnd.get();
  readEnd.reset();
  errno = 0;
  EXPECT_FALSE(isSocket(closed));
  EXPECT_THROW(setNonBlocking(closed, true), boost::system::system_error);
}

// A fork on another thread while pipes are made: the child must hold no pipe
// end that an exec would keep open (only async-signal-safe calls in it).
TEST(DescriptorHelpers, AForkDuringCreatePipeInheritsNoEnd) {
  auto inheritablePipe = [](int fd) {
    struct stat info;
    const int flags = ::fcntl(fd, F_GETFD);
    return flags >= 0 && !(flags & FD_CLOEXEC) && ::fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode);
  };
  std::set<int> before;
  for (int fd = 3; fd < 1024; ++fd)
    if (inheritablePipe(fd)) before.insert(fd);
  std::atomic<bool> done{false};
  std::thread maker([&] {
    for (FileDescriptor readEnd, writeEnd; !done.load();) createPipe(readEnd, writeEnd);
  });
  int leaks = 0;
  for (int i = 0; i < 300; ++i) {
    const pid_t child = ::fork();
    if (child == 0) {
      for (int fd = 3; fd < 1024; ++fd)
        if (inheritablePipe(fd) && before.count(fd) == 0) ::_exit(1);
      ::_exit(0);
    }
    int status = 1;
    if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) ++leaks;
  }
  done.store(true);
  maker.join();
  EXPECT_EQ(leaks, 0);
}

TEST(Environment, UnsetEmptyAndValue) {
  const std::string name = "KINDLET_BASE_TEST_VARIABLE";
  setEnvironmentVariable(name, boost::none);  // unset stays unset
  EXPECT_FALSE(getEnvironmentVariable(name));
  setEnvironmentVariable(name, std::string());  // empty is set, not removed
  EXPECT_EQ(getEnvironmentVariable(name), std::string());
  setEnvironmentVariable(name, std::string("a=b c"));
  EXPECT_EQ(getEnvironmentVariable(name), std::string("a=b c"));
  setEnvironmentVariable(name, boost::none);
  EXPECT_EQ(::getenv(name.c_str()), nullptr);

  EXPECT_EQ(getExecutableName(), "base_test");
  EXPECT_EQ(getExecutablePath().front(), '/');
}

TEST(WaitForReadable, ReadyTimeoutAndHangUp) {
  WakeEvent event;
  event.signal();
  event.signal();
  event.wait();  // both signals consumed at once
  const int fd = event.descriptor();
  boost::system::error_code error;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(waitForReadable(&fd, 1, 50, &error), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(45));
  EXPECT_EQ(error, boost::system::error_code(ETIMEDOUT, boost::system::generic_category()));

  FileDescriptor aRead, aWrite, bRead, bWrite;
  createPipe(aRead, aWrite);
  createPipe(bRead, bWrite);
  const int both[2] = {aRead.get(), bRead.get()};
  event.signal();
  EXPECT_EQ(waitForReadable(&fd, 1, -1, &error), fd);
  EXPECT_FALSE(error);

  // Several ready: each wins sometimes. A hung-up pipe counts as ready.
  ASSERT_EQ(::write(aWrite.get(), "x", 1), 1);
  bWrite.reset();
  std::set<int> winners;
  for (int i = 0; i < 200 && winners.size() < 2; ++i)
    winners.insert(waitForReadable(both, 2, -1, nullptr));
  EXPECT_EQ(winners, (std::set<int>{aRead.get(), bRead.get()}));
}
