#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "base/Environment.h"
#include "base/ExecutablePath.h"
#include "base/ProcessIdentity.h"

using namespace Arbolite3::Base;

TEST(Environment, SetEmptyAndRemove) {
  const std::string name = "KINDLET_BASE_TEST_VARIABLE";
  ::unsetenv(name.c_str());
  EXPECT_FALSE(getEnvironmentVariable(name));

  setEnvironmentVariable(name, boost::none);  // unset stays unset
  EXPECT_EQ(::getenv(name.c_str()), nullptr);

  setEnvironmentVariable(name, std::string());
  ASSERT_TRUE(getEnvironmentVariable(name));
  EXPECT_EQ(*getEnvironmentVariable(name), "");

  setEnvironmentVariable(name, std::string("a=b c"));
  EXPECT_EQ(*getEnvironmentVariable(name), "a=b c");

  setEnvironmentVariable(name, boost::none);
  EXPECT_FALSE(getEnvironmentVariable(name));
}

TEST(ExecutablePath, IsCanonicalAndNamesThisTest) {
  const std::string path = getExecutablePath();
  ASSERT_FALSE(path.empty());
  EXPECT_EQ(path[0], '/');
  char buffer[4096];
  const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  ASSERT_GT(length, 0);
  EXPECT_EQ(path, std::string(buffer, length));
  EXPECT_EQ(getExecutableName(), "base_test");
}

TEST(ProcessIdentity, MainThreadIdIsTheProcessId) {
  EXPECT_EQ(getProcessId(), ::getpid());
  EXPECT_EQ(getThreadId(), ::getpid());
}
