#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "UTIL/src/Exceptions.h"
#include "XoConfiguration/Configuration.h"

using Arbolite3::XoConfiguration::v1::Config;

TEST(Exceptions, ReportOnceAtConstructionAndFormatWhat) {
  testing::internal::CaptureStderr();
  UTIL::AssertException assertion("x == nullptr", "some/File", 9);
  UTIL::FatalErrorException fatal("disk gone", "other/File", 1234567890123);
  UTIL::OutOfMemoryException outOfMemory("no room", "third/File", -1);
  // Copies, as made while an exception propagates, print nothing.
  UTIL::AssertException assertionCopy(assertion);
  UTIL::FatalErrorException fatalCopy(fatal);
  UTIL::OutOfMemoryException outOfMemoryCopy(outOfMemory);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "assert(x == nullptr) failed at some/File:9\n"
            "Fatal Error: disk gone at other/File:1234567890123\n"
            "Out of Memory: no room at third/File:-1\n");

  EXPECT_STREQ(assertionCopy.what(), "assertion(x == nullptr) failed at some/File:9");
  EXPECT_STREQ(fatalCopy.what(), "Fatal Error: disk gone\nother/File:1234567890123");
  EXPECT_STREQ(outOfMemoryCopy.what(), "Out of Memory: no room\nthird/File:-1");
  EXPECT_STREQ(UTIL::ErrorException().what(), "ErrorException was thrown.");
  EXPECT_EQ(outOfMemory.exitCode(), 33);

  const UTIL::ErrorException& base = fatal;
  EXPECT_STREQ(base.what(), "Fatal Error: disk gone\nother/File:1234567890123");
}

TEST(Exceptions, OutOfMemoryPropagatesOutsideBatchMode) {
  Config().erase("SELVANE_BATCH_MODE");
  testing::internal::CaptureStderr();
  EXPECT_THROW(throw UTIL::OutOfMemoryException("m", "f", 1), UTIL::ErrorException);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Out of Memory: m at f:1\n");
}

namespace {

struct SaysGoodbye {
  ~SaysGoodbye() { std::fprintf(stderr, "destructor ran\n"); }
};

}  // namespace

TEST(ExceptionsDeathTest, OutOfMemoryEndsABatchProcessAtOnce) {
  // Any value, even "0", means batch mode: only the key's presence counts.
  EXPECT_EXIT(
      {
        Config().set("SELVANE_BATCH_MODE", "0");
        SaysGoodbye local;
        UTIL::OutOfMemoryException("no room", "f", 3);
      },
      testing::ExitedWithCode(33), testing::Not(testing::HasSubstr("destructor ran")));
}

TEST(ExceptionsDeathTest, FatalErrorNeverEndsTheProcessItself) {
  EXPECT_EXIT(
      {
        Config().set("SELVANE_BATCH_MODE", "1");
        UTIL::FatalErrorException("bad", "f", 4);
        UTIL::AssertException("a", "f", 5);
        std::exit(7);
      },
      testing::ExitedWithCode(7), "Fatal Error: bad at f:4\nassert\\(a\\) failed at f:5\n");
}
