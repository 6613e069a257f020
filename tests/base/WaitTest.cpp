#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "base/DescriptorPairs.h"
#include "base/WaitForReadable.h"
#include "base/WakeEvent.h"

using namespace Arbolite3::Base;

TEST(WakeEvent, SignalsAddUpAndOneWaitConsumesThem) {
  WakeEvent event;
  event.signal();
  event.signal();
  event.wait();
  const int fd = event.descriptor();
  boost::system::error_code error;
  EXPECT_EQ(waitForReadable(&fd, 1, 0, &error), -1);
  EXPECT_EQ(error.value(), ETIMEDOUT);
  EXPECT_EQ(error.category(), boost::system::generic_category());

  std::thread signaller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    event.signal();
  });
  event.wait();  // returns only because of the other thread
  signaller.join();
}

TEST(WaitForReadable, TimesOutAfterRoughlyTheDeadline) {
  FileDescriptor readEnd, writeEnd;
  createPipe(readEnd, writeEnd);
  const int fd = readEnd.get();
  boost::system::error_code error;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(waitForReadable(&fd, 1, 50, &error), -1);
  const auto elapsed = std::chrono::steady_clock::now() - begin;
  EXPECT_EQ(error.value(), ETIMEDOUT);
  EXPECT_GE(elapsed, std::chrono::milliseconds(45));
  EXPECT_LT(elapsed, std::chrono::seconds(2));
}

TEST(WaitForReadable, ReportsReadyHungUpAndInvalidDescriptors) {
  FileDescriptor idleRead, idleWrite, readyRead, readyWrite;
  createPipe(idleRead, idleWrite);
  createPipe(readyRead, readyWrite);
  ASSERT_EQ(::write(readyWrite.get(), "x", 1), 1);
  const int both[2] = {idleRead.get(), readyRead.get()};
  boost::system::error_code error;
  EXPECT_EQ(waitForReadable(both, 2, -1, &error), readyRead.get());
  EXPECT_FALSE(error);

  // The write end gone: hang-up counts as readable.
  idleWrite.reset();
  const int idle = idleRead.get();
  EXPECT_EQ(waitForReadable(&idle, 1, 1000, nullptr), idle);

  // A descriptor number that isn't open: POLLNVAL.
  FileDescriptor scratchRead, scratchWrite;
  createPipe(scratchRead, scratchWrite);
  const int closed = scratchRead.get();
  scratchRead.reset();
  EXPECT_EQ(waitForReadable(&closed, 1, 1000, &error), closed);
}

TEST(WaitForReadable, PicksAmongSeveralReadyAtRandom) {
  FileDescriptor aRead, aWrite, bRead, bWrite;
  createPipe(aRead, aWrite);
  createPipe(bRead, bWrite);
  ASSERT_EQ(::write(aWrite.get(), "x", 1), 1);
  ASSERT_EQ(::write(bWrite.get(), "x", 1), 1);
  const int both[2] = {aRead.get(), bRead.get()};
  std::set<int> winners;
  for (int i = 0; i < 200 && winners.size() < 2; ++i)
    winners.insert(waitForReadable(both, 2, -1, nullptr));
  EXPECT_EQ(winners, (std::set<int>{aRead.get(), bRead.get()}));
}
