#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include "base/DescriptorFlags.h"
#include "base/DescriptorPairs.h"
#include "base/FileDescriptor.h"
#include "base/RetryingIO.h"

using namespace Arbolite3::Base;

namespace {

bool isOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

void onSignal(int) {}

}  // namespace

TEST(FileDescriptor, ClosesOnResetMoveAndDestruction) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  {
    FileDescriptor a(fds[0]);
    FileDescriptor b(fds[1]);
    a.reset(fds[0]);  // same descriptor again: must stay open
    EXPECT_TRUE(isOpen(fds[0]));
    a = std::move(b);  // closes the read end, takes the write end
    EXPECT_FALSE(isOpen(fds[0]));
    EXPECT_EQ(a.get(), fds[1]);
    EXPECT_FALSE(b.valid());
  }
  EXPECT_FALSE(isOpen(fds[1]));
}

TEST(RetryingIO, SignalDuringBlockingReadIsInvisible) {
  FileDescriptor readEnd, writeEnd;
  createPipe(readEnd, writeEnd);

  // A handler without SA_RESTART makes the blocked read fail with EINTR.
  struct sigaction action = {};
  action.sa_handler = onSignal;
  struct sigaction previous;
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);

  const pthread_t reader = ::pthread_self();
  std::atomic<bool> done{false};
  std::thread helper([&] {
    for (int i = 0; i < 5 && !done; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ::pthread_kill(reader, SIGUSR1);
    }
    ::write(writeEnd.get(), "xyz", 3);
  });
  char buffer[8];
  boost::system::error_code error;
  const ssize_t count = readRetrying(readEnd.get(), buffer, sizeof buffer, &error);
  done = true;
  helper.join();
  ::sigaction(SIGUSR1, &previous, nullptr);

  EXPECT_EQ(count, 3);
  EXPECT_FALSE(error);
}

TEST(RetryingIO, FailuresReportErrnoAndEndOfFileIsNotOne) {
  boost::system::error_code error;
  char byte;
  EXPECT_EQ(readRetrying(-1, &byte, 1, &error), -1);
  EXPECT_EQ(error.value(), EBADF);
  EXPECT_EQ(error.category(), boost::system::system_category());
  EXPECT_EQ(sendRetrying(-1, &byte, 1, 0, nullptr), -1);
  EXPECT_EQ(errno, EBADF);

  FileDescriptor first, second;
  createSocketPair(first, second);
  ASSERT_EQ(sendRetrying(first.get(), "ab", 2, MSG_NOSIGNAL, &error), 2);
  EXPECT_FALSE(error);
  first.reset();
  char buffer[4];
  EXPECT_EQ(recvRetrying(second.get(), buffer, sizeof buffer, 0, &error), 2);
  EXPECT_EQ(recvRetrying(second.get(), buffer, sizeof buffer, 0, &error), 0);
  EXPECT_FALSE(error);
  // Writing to a socket whose peer is gone: EPIPE, not a signal.
  EXPECT_EQ(sendRetrying(second.get(), "x", 1, MSG_NOSIGNAL, &error), -1);
  EXPECT_EQ(error.value(), EPIPE);
}

TEST(DescriptorFlags, SocketTestAndFlagsRoundTrip) {
  FileDescriptor first, second;
  createSocketPair(first, second);
  EXPECT_TRUE(isSocket(first.get()));
  // The pair stays inheritable; a pipe is close-on-exec.
  EXPECT_EQ(::fcntl(first.get(), F_GETFD) & FD_CLOEXEC, 0);

  FileDescriptor readEnd, writeEnd;
  createPipe(readEnd, writeEnd);
  EXPECT_FALSE(isSocket(readEnd.get()));
  EXPECT_NE(::fcntl(readEnd.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(::fcntl(writeEnd.get(), F_GETFD) & FD_CLOEXEC, 0);

  setInheritable(readEnd.get(), true);
  EXPECT_EQ(::fcntl(readEnd.get(), F_GETFD) & FD_CLOEXEC, 0);
  setInheritable(readEnd.get(), false);
  EXPECT_NE(::fcntl(readEnd.get(), F_GETFD) & FD_CLOEXEC, 0);

  setNonBlocking(readEnd.get(), true);
  char byte;
  boost::system::error_code error;
  EXPECT_EQ(readRetrying(readEnd.get(), &byte, 1, &error), -1);
  EXPECT_EQ(error.value(), EAGAIN);
  setNonBlocking(readEnd.get(), false);
  EXPECT_EQ(::fcntl(readEnd.get(), F_GETFL) & O_NONBLOCK, 0);

  const int closed = readEnd.get();
  readEnd.reset();
  errno = 0;
  EXPECT_FALSE(isSocket(closed));
  EXPECT_THROW(setNonBlocking(closed, true), boost::system::system_error);
  EXPECT_THROW(setInheritable(closed, true), boost::system::system_error);
}

TEST(DescriptorPairs, CreatingIntoHeldDescriptorsClosesThem) {
  FileDescriptor first, second;
  createPipe(first, second);
  const int oldFirst = first.get();
  const int oldSecond = second.get();
  createSocketPair(first, second);
  // The kernel may reuse the numbers, so only a changed number or a socket
  // proves the old descriptors were replaced; a leak would keep both old
  // numbers open as pipes.
  EXPECT_TRUE(isSocket(first.get()));
  EXPECT_TRUE(isSocket(second.get()));
  for (int old : {oldFirst, oldSecond})
    if (old != first.get() && old != second.get()) {
      EXPECT_FALSE(isOpen(old));
    }
}
