#include <pthread.h>
#include <signal.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KINDLET/src/ShutdownRegistry.h"
#include "KINDLET/src/SignalMaskGuard.h"

namespace {

std::vector<std::string> ran;

void note(void* argument) { ran.push_back(static_cast<const char*>(argument)); }

class Shutdown : public testing::Test {
 protected:
  void SetUp() override { ran.clear(); }
};

TEST_F(Shutdown, NewestFirstAndUnregisteredSlotReusedByTheNext) {
  {
    ShutdownRegistry registry;
    EXPECT_EQ(ShutdownRegistry::instance(), &registry);
    char a[] = "A", b[] = "B", c[] = "C", d[] = "D";
    EXPECT_EQ(registry.registerCallback(note, a), 0);
    const int32_t slotB = registry.registerCallback(note, b);
    EXPECT_EQ(registry.registerCallback(note, c), 2);
    registry.unregisterCallback(slotB);
    registry.unregisterCallback(slotB);  // already free: nothing
    EXPECT_EQ(registry.registerCallback(note, d), slotB);
    EXPECT_EQ(registry.registerCallback(note, a), 3);
  }
  EXPECT_EQ(ran, (std::vector<std::string>{"A", "D", "C", "A"}));
  EXPECT_EQ(ShutdownRegistry::instance(), nullptr);
}

char late[] = "late";
char registering[] = "registering";

void registerAnother(void* argument) {
  ran.push_back(static_cast<const char*>(argument));
  ShutdownRegistry::instance()->registerCallback(note, late);
}

TEST_F(Shutdown, CallbackRegisteredDuringTheFinalRunIsNeverRun) {
  {
    ShutdownRegistry registry;
    char first[] = "first";
    registry.registerCallback(note, first);
    registry.registerCallback(registerAnother, registering);
  }
  EXPECT_EQ(ran, (std::vector<std::string>{"registering", "first"}));
}

TEST_F(Shutdown, SlotsOfARunAreFreeForLaterRegistrations) {
  ShutdownRegistry registry;
  char first[] = "first", next[] = "next";
  registry.registerCallback(note, first);
  registry.registerCallback(note, first);
  registry.runCallbacks();
  const int32_t index = registry.registerCallback(note, next);
  EXPECT_TRUE(index == 0 || index == 1) << index;
  registry.runCallbacks();
  EXPECT_EQ(ran, (std::vector<std::string>{"first", "first", "next"}));
}

bool blocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

void unblock(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void block(int signal) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signal);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// Block and Unblock change the listed signals, SetMask sets the whole mask;
// the old mask comes back at restore() or at destruction, once. An unknown
// mode changes nothing, now or later.
TEST(SignalMaskGuard, ChangesAndPutsBackTheMaskOnce) {
  unblock(SIGUSR1);
  unblock(SIGUSR2);
  {
    SignalMaskGuard guard(SignalMaskGuard::Block, {SIGUSR1});
    EXPECT_TRUE(blocked(SIGUSR1));
    guard.restore();
    EXPECT_FALSE(blocked(SIGUSR1));
    block(SIGUSR2);
    guard.restore();
    EXPECT_TRUE(blocked(SIGUSR2));
  }
  EXPECT_TRUE(blocked(SIGUSR2));
  {
    SignalMaskGuard guard(SignalMaskGuard::SetMask, {SIGUSR1});
    EXPECT_TRUE(blocked(SIGUSR1));
    EXPECT_FALSE(blocked(SIGUSR2));
  }
  EXPECT_FALSE(blocked(SIGUSR1));
  EXPECT_TRUE(blocked(SIGUSR2));
  {
    SignalMaskGuard guard(SignalMaskGuard::Unblock, {SIGUSR2});
    EXPECT_FALSE(blocked(SIGUSR2));
  }
  EXPECT_TRUE(blocked(SIGUSR2));
  {
    SignalMaskGuard guard(7, {SIGUSR1});
    EXPECT_FALSE(blocked(SIGUSR1));
    guard.restore();
    EXPECT_TRUE(blocked(SIGUSR2));
  }
  EXPECT_TRUE(blocked(SIGUSR2));
  unblock(SIGUSR2);
}

}  // namespace
