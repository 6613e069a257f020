// The command line, the shutdown registry and the signal guard.
#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <string>
#include <vector>

#include "KINDLET/src/Arguments.h"
#include "KINDLET/src/ShutdownRegistry.h"
#include "KINDLET/src/SignalMaskGuard.h"

namespace {

OptionMap parse(std::vector<std::string> tokens, int* result = nullptr) {
  std::vector<char*> argv;
  for (std::string& token : tokens) argv.push_back(&token[0]);
  OptionMap options;
  int status = parseArguments(static_cast<int>(argv.size()), argv.data(), options);
  if (result != nullptr) *result = status;
  return options;
}

TEST(ParseArguments, SingleDashNameThenValue) {
  int result = 0;
  EXPECT_TRUE(parse({"kindlet", "-a"}, &result).empty());
  EXPECT_EQ(result, -1);

  OptionMap options = parse({"kindlet", "-a", "1", "-b"}, &result);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(options, (OptionMap{{"a", "1"}}));

  EXPECT_EQ(parse({"kindlet", "x", "y", "-a", "1"}), (OptionMap{{"a", "1"}}));
  EXPECT_EQ(parse({"kindlet", "-a", "-b", "-c", "1"}), (OptionMap{{"a", "-b"}, {"c", "1"}}));
  // No "=" form and no double dash; the last of several values wins.
  EXPECT_EQ(parse({"kindlet", "-threads=4", "x", "--threads", "4", "-t", "1", "-t", "-5"}),
            (OptionMap{{"threads=4", "x"}, {"-threads", "4"}, {"t", "-5"}}));
  // The program name is a token like any other.
  EXPECT_EQ(parse({"-p", "v", "w"}), (OptionMap{{"p", "v"}}));
}

TEST(RequireOptions, PrintsEveryMissingNameInListOrder) {
  OptionMap options{{"b", "set"}, {"c", ""}};
  testing::internal::CaptureStdout();
  EXPECT_EQ(requireOptions(options, {"d", "b", "c", "a"}), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Missing d\nMissing c\nMissing a\n");

  testing::internal::CaptureStdout();
  EXPECT_EQ(requireOptions(options, {"b"}), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(GetOption, LengthOfValueAndOutputOnlyWhenPresent) {
  OptionMap options{{"name", "value"}, {"empty", ""}};
  std::string out = "untouched";
  EXPECT_EQ(getOption(options, "absent", out), 0);
  EXPECT_EQ(out, "untouched");
  EXPECT_EQ(getOption(options, "empty", out), 0);
  EXPECT_EQ(out, "");
  EXPECT_EQ(getOption(options, "name", out), 5);
  EXPECT_EQ(out, "value");
}

std::vector<int> g_ran;
void note(void* argument) { g_ran.push_back(static_cast<int>(reinterpret_cast<intptr_t>(argument))); }
void registerFromCallback(void*) {
  note(reinterpret_cast<void*>(99));
  ShutdownRegistry::instance()->registerCallback(note, reinterpret_cast<void*>(100));
}
void* tag(int value) { return reinterpret_cast<void*>(static_cast<intptr_t>(value)); }

TEST(ShutdownRegistryTest, NewestFirstUnregisterAndSlotReuse) {
  g_ran.clear();
  EXPECT_EQ(ShutdownRegistry::instance(), nullptr);
  {
    ShutdownRegistry registry;
    EXPECT_EQ(ShutdownRegistry::instance(), &registry);
    int32_t first = registry.registerCallback(note, tag(1));
    int32_t second = registry.registerCallback(note, tag(2));
    registry.registerCallback(note, tag(3));
    registry.unregisterCallback(second);
    registry.unregisterCallback(second);  // twice is harmless
    registry.unregisterCallback(-1);
    registry.unregisterCallback(1000);
    // The freed slot is reused, and the newcomer is still the newest.
    EXPECT_EQ(registry.registerCallback(note, tag(4)), second);
    (void)first;
    registry.runCallbacks();
    EXPECT_EQ(g_ran, (std::vector<int>{4, 3, 1}));
    // A run clears: nothing runs twice, also not from the destructor.
    registry.runCallbacks();
    EXPECT_EQ(g_ran.size(), 3u);
    registry.registerCallback(note, tag(5));
  }
  EXPECT_EQ(g_ran, (std::vector<int>{4, 3, 1, 5}));
  EXPECT_EQ(ShutdownRegistry::instance(), nullptr);
}

TEST(ShutdownRegistryTest, CallbackRegisteringDuringTheRunWaitsForTheNextRun) {
  g_ran.clear();
  ShutdownRegistry registry;
  registry.registerCallback(note, tag(1));
  registry.registerCallback(registerFromCallback, nullptr);
  registry.runCallbacks();
  EXPECT_EQ(g_ran, (std::vector<int>{99, 1}));
  registry.runCallbacks();
  EXPECT_EQ(g_ran, (std::vector<int>{99, 1, 100}));
}

bool blocked(int signal) {
  sigset_t current;
  pthread_sigmask(SIG_SETMASK, nullptr, &current);
  return sigismember(&current, signal) == 1;
}

TEST(SignalMaskGuardTest, RestoresOnceAndOnDestruction) {
  ASSERT_FALSE(blocked(SIGUSR1));
  {
    SignalMaskGuard guard(SignalMaskGuard::Block, {SIGUSR1, SIGUSR2});
    EXPECT_TRUE(blocked(SIGUSR1));
    EXPECT_TRUE(blocked(SIGUSR2));
    guard.restore();
    EXPECT_FALSE(blocked(SIGUSR1));
    // Blocked again after the restore: neither a second restore nor the
    // destructor touches the mask any more.
    SignalMaskGuard later(SignalMaskGuard::Block, {SIGUSR1});
    later.restore();
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    guard.restore();
    EXPECT_TRUE(blocked(SIGUSR1));
  }
  EXPECT_TRUE(blocked(SIGUSR1));
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);

  {
    SignalMaskGuard guard(SignalMaskGuard::Block, {SIGUSR2});
    EXPECT_TRUE(blocked(SIGUSR2));
  }
  EXPECT_FALSE(blocked(SIGUSR2));
}

}  // namespace
