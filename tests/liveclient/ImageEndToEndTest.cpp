// Images end to end: kindlet-control --images with two installed kindlets
// running the path tracer; one is killed mid-render and the other's images
// keep coming, through the edit that follows. Then the same with one view on
// several kindlets, whose images are merged.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <OpenImageIO/imagecache.h>

#include <thread>

#include "KindletTestSupport.h"

namespace {

// The pass and scene state written into an image file, or -1s.
std::pair<int, int> passOf(const std::string& path) {
  // A cache of its own for each look: the file is replaced as passes come.
  OIIO::ImageCache* cache = OIIO::ImageCache::create(false);
  int pass = -1, state = -1;
  const OIIO::ustring file(path);
  if (!cache->get_image_info(file, 0, 0, OIIO::ustring("kindlet:pass"), OIIO::TypeInt, &pass) ||
      !cache->get_image_info(file, 0, 0, OIIO::ustring("kindlet:sceneState"), OIIO::TypeInt,
                             &state))
    pass = state = -1;
  OIIO::ImageCache::destroy(cache);
  return {pass, state};
}

template <typename Done>
bool within(int seconds, Done done) {
  const auto end = kindlettest::Clock::now() + std::chrono::seconds(seconds);
  while (!done() && kindlettest::Clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return done();
}

TEST(ImageEndToEnd, AKilledRenderLeavesTheOthersImagesComingThroughTheNextEdit) {
  kindlettest::TempDir dir;
  const std::string root = kindlettest::testRoot();
  const std::string images = dir.file("images");
  std::vector<std::string> arguments = {
      root + "/bin/kindlet-control", "--start", "--renders", "2", "--images", images,
      "--timeout", "60", "--", "-selvaneRoot", root, "-tempDir", dir.path(),
      "-arbolite3OpTree", root + "/share/kindlet/examples/pathtracer/wuson.optree.json",
      "-renderer", "pathtracer", "-renderMethodName", "liveRender", "-samples", "100000", "-threads", "1"};
  // The script is a pipe that the test writes as it goes.
  const std::string fifo = dir.file("script");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  arguments.insert(arguments.begin() + 1, {"--script", fifo});
  // A sanitizer build's leak check must leave out kindlet's interpreter.
  kindlettest::Child control = kindlettest::spawn(
      arguments, {{"LSAN_OPTIONS", kindlettest::parentEnvironment()["LSAN_OPTIONS"]}});
  const int script = open(fifo.c_str(), O_WRONLY);
  ASSERT_GE(script, 0);
  std::vector<pid_t> kindlets;
  while (kindlets.size() < 2) {
    const auto line = kindlettest::readLine(control.out);
    ASSERT_TRUE(line) << "kindlet-control ended early";
    if (line->rfind("kindlet pid ", 0) == 0) kindlets.push_back(std::stoi(line->substr(12)));
  }
  const std::string first = images + "/1.beauty.exr", second = images + "/2.beauty.exr";
  ASSERT_TRUE(within(60, [&] { return passOf(first).first > 2 && passOf(second).first > 2; }));

  kill(kindlets[0], SIGKILL);
  const int before = passOf(second).first;
  EXPECT_TRUE(within(30, [&] { return passOf(second).first > before + 2; }));
  const std::string edit =
      "update {\"/root/lights/key\": {\"attributes\": {\"material\": {\"params\": "
      "{\"color\": [1.0, 0.6, 0.4]}}}}}\nsleep 1000\nstop\n";
  ASSERT_EQ(write(script, edit.data(), edit.size()), ssize_t(edit.size()));
  close(script);
  EXPECT_TRUE(within(30, [&] { return passOf(second).second == 1; }));

  const std::string out = kindlettest::readToEnd(control.out);
  const std::string errors = kindlettest::readToEnd(control.err);
  const int status = kindlettest::waitFor(control.pid);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 128 + SIGKILL) << out << errors;
  EXPECT_NE(errors.find("pid " + std::to_string(kindlets[0]) + " is gone"), std::string::npos)
      << errors;
  EXPECT_NE(out.find("kindlet exited with status 0"), std::string::npos) << out;
}

// One view on two kindlets: a third joins after an edit, the first two are
// killed, and the merged image goes on in the edited state from the joiner
// alone, which it could not without the edit replayed to it.
TEST(ImageEndToEnd, AViewOnSeveralKindletsOutlivesThemWithALateJoiner) {
  kindlettest::TempDir dir;
  const std::string root = kindlettest::testRoot();
  const std::string images = dir.file("images"), fifo = dir.file("script");
  const std::vector<std::string> kindletOptions = {
      "-selvaneRoot", root, "-tempDir", dir.path(), "-arbolite3OpTree",
      root + "/share/kindlet/examples/pathtracer/wuson.optree.json", "-renderer", "pathtracer",
      "-renderMethodName", "liveRender", "-samples", "100000", "-threads", "1"};
  std::vector<std::string> arguments = {root + "/bin/kindlet-control", "--script", fifo, "--start",
                                        "--kindlets", "2", "--images", images, "--timeout", "60", "--"};
  arguments.insert(arguments.end(), kindletOptions.begin(), kindletOptions.end());
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const kindlettest::EnvironmentChanges environment = {
      {"LSAN_OPTIONS", kindlettest::parentEnvironment()["LSAN_OPTIONS"]}};
  kindlettest::Child control = kindlettest::spawn(arguments, environment);
  const int script = open(fifo.c_str(), O_WRONLY);
  ASSERT_GE(script, 0);
  std::vector<pid_t> kindlets;
  std::string port;
  int registered = 0;
  auto readUntil = [&](auto done) {
    while (!done()) {
      const auto line = kindlettest::readLine(control.out);
      if (!line) return false;
      if (line->rfind("kindlet pid ", 0) == 0) kindlets.push_back(std::stoi(line->substr(12)));
      if (line->rfind("service registry port ", 0) == 0) port = line->substr(22);
      registered += line->rfind("registered ", 0) == 0;
    }
    return true;
  };
  ASSERT_TRUE(readUntil([&] { return registered == 2; }));
  const std::string merged = images + "/0.beauty.exr";
  ASSERT_TRUE(within(60, [&] { return passOf(merged).first > 3; }));
  const std::string edit =
      "update {\"/root/lights/key\": {\"attributes\": {\"material\": {\"params\": "
      "{\"color\": [1.0, 0.6, 0.4]}}}}}\n";
  ASSERT_EQ(write(script, edit.data(), edit.size()), ssize_t(edit.size()));
  ASSERT_TRUE(within(30, [&] { return passOf(merged).second == 1; }));

  std::vector<std::string> join = {root + "/bin/kindlet-control", "render", "--registry",
                                   "127.0.0.1:" + port, "--"};
  join.insert(join.end(), kindletOptions.begin(), kindletOptions.end());
  join.insert(join.end(), {"-sampleOffset", "0", "-sampleStride", "2"});
  kindlettest::Child joiner = kindlettest::spawn(join, environment);
  ASSERT_TRUE(readUntil([&] { return registered == 3; }));
  for (pid_t pid : kindlets) kill(pid, SIGKILL);
  std::this_thread::sleep_for(std::chrono::seconds(1));  // what was under way lands
  const int before = passOf(merged).first;
  EXPECT_TRUE(within(60, [&] { return passOf(merged).first > before + 3; }));
  EXPECT_EQ(passOf(merged).second, 1);

  ASSERT_EQ(write(script, "stop\n", 5), 5);
  close(script);
  const std::string errors = kindlettest::readToEnd(control.err);
  kindlettest::readToEnd(control.out);
  const int status = kindlettest::waitFor(control.pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGKILL) << errors;
  // Each is said to be gone; "left the view" only for one whose passes were
  // in the image then, which on a loaded machine may be one of the two.
  for (pid_t pid : kindlets)
    EXPECT_NE(errors.find("pid " + std::to_string(pid) + " is gone"), std::string::npos) << errors;
  EXPECT_NE(errors.find(" left the view; "), std::string::npos) << errors;
  const int joined = kindlettest::waitFor(joiner.pid);
  EXPECT_TRUE(WIFEXITED(joined) && WEXITSTATUS(joined) == 0);
}

}  // namespace
