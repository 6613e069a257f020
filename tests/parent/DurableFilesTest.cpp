// Reports and images reach the disk before their names point at them: fsync
// and rename are wrapped here to see that the temporary is synced first.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include <gtest/gtest.h>

#include "ImageFile.h"
#include "KindletTestSupport.h"
#include "XoRenderServices/AnalyticsManager.h"

static std::vector<std::string> calls;  // "fsync <path>", "rename <from>"

extern "C" int fsync(int fd) {
  char path[PATH_MAX] = {};
  if (::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1) > 0)
    calls.push_back(std::string("fsync ") + path);
  return reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"))(fd);
}

extern "C" int rename(const char* from, const char* to) {
  calls.push_back(std::string("rename ") + from);
  return reinterpret_cast<int (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "rename"))(from, to);
}

TEST(DurableFiles, ReportsAndImagesAreSyncedBeforeTheirRename) {
  kindlettest::TempDir scratch;
  Arbolite3::XoRenderServices::v1::AnalyticsManager(scratch.path()).close();
  std::string error;
  ASSERT_TRUE(pathtracer::writeImageAtomically(scratch.file("a.png"), 4, 4, std::vector<float>(48, 0.25f), error))
      << error;
  size_t renames = 0;
  for (auto call = calls.begin(); call != calls.end(); ++call) {
    if (call->rfind("rename ", 0) != 0) continue;
    ++renames;
    EXPECT_NE(std::find(calls.begin(), call, "fsync " + call->substr(7)), call) << *call;
  }
  EXPECT_EQ(renames, 2u);
}
