// Files that parents read (analytics reports, rendered images) reach the disk
// before their names point at them: the temporary file is synced before it is
// renamed into place. fsync and rename are wrapped here to see the order.
#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KindletTestSupport.h"
#include "XoRenderServices/AnalyticsManager.h"
#ifdef KINDLET_TEST_IMAGES
#include "ImageFile.h"
#endif

namespace {
std::mutex callsMutex;
std::vector<std::string> calls;  // "fsync <path>", "rename <from>"

void note(const std::string& call) {
  std::lock_guard<std::mutex> lock(callsMutex);
  calls.push_back(call);
}

// True when `from` was synced before it was renamed.
bool syncedBeforeRename() {
  std::lock_guard<std::mutex> lock(callsMutex);
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].rfind("rename ", 0) != 0) continue;
    const std::string synced = "fsync " + calls[i].substr(7);
    for (size_t j = 0; j < i; ++j)
      if (calls[j] == synced) return true;
    return false;
  }
  return false;
}
}  // namespace

extern "C" int fsync(int fd) {
  char path[PATH_MAX] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  if (::readlink(link.c_str(), path, sizeof path - 1) > 0) note(std::string("fsync ") + path);
  static auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  return real(fd);
}

extern "C" int rename(const char* from, const char* to) {
  note(std::string("rename ") + from);
  static auto real = reinterpret_cast<int (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "rename"));
  return real(from, to);
}

TEST(DurableFiles, TheAnalyticsReportIsSyncedBeforeItsRename) {
  kindlettest::TempDir scratch;
  calls.clear();
  Arbolite3::XoRenderServices::v1::AnalyticsManager report(scratch.path());
  report.close();
  EXPECT_TRUE(syncedBeforeRename()) << ::testing::PrintToString(calls);
}

#ifdef KINDLET_TEST_IMAGES
TEST(DurableFiles, AnImageIsSyncedBeforeItsRename) {
  kindlettest::TempDir scratch;
  for (const char* name : {"a.png", "a.exr"}) {
    calls.clear();
    std::string error;
    ASSERT_TRUE(pathtracer::writeImageAtomically(scratch.file(name), 4, 4,
                                                 std::vector<float>(48, 0.25f), error))
        << error;
    EXPECT_TRUE(syncedBeforeRename()) << name << ::testing::PrintToString(calls);
  }
}
#endif
