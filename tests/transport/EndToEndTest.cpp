// The installed kindlet in a live render, driven over both channels by the
// installed kindlet-control, with the recording renderer plug-in.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

namespace {

const std::string root = KINDLET_TEST_ROOT;

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// "submitUpdate 123 {a=1}" -> {"submitUpdate", "{a=1}"}: slot and details,
// without the thread id.
std::vector<std::pair<std::string, std::string>> recordedCalls(const std::string& path) {
  std::vector<std::pair<std::string, std::string>> calls;
  std::istringstream lines(readFile(path));
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string slot, tid, details;
    fields >> slot >> tid;
    std::getline(fields >> std::ws, details);
    calls.emplace_back(slot, details);
  }
  return calls;
}

class LiveRenderEndToEnd : public testing::Test {
 protected:
  void SetUp() override {
    scratch = (boost::filesystem::temp_directory_path() / boost::filesystem::unique_path())
                  .string();
    boost::filesystem::create_directories(scratch);
    recordFile = scratch + "/calls.txt";
  }
  void TearDown() override {
    if (stdinPipe >= 0) ::close(stdinPipe);
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    boost::filesystem::remove_all(scratch);
  }

  // Starts kindlet-control, which starts kindlet; the script comes through a
  // pipe so that the test can pace it.
  void start(const std::vector<std::string>& controlOptions = {}) {
    const std::string python = "/usr/lib/python" KINDLET_PYTHON_VERSION;
    std::vector<std::string> environment = {
        "PATH=/usr/bin:/bin",
        "HOME=" + scratch,
        "PYTHONDONTWRITEBYTECODE=1",
        "SELVANE_INTERNAL_PYTHONHOME=/usr",
        "SELVANE_INTERNAL_PYTHONPATH=" + python + ":" + python + "/lib-dynload:" + root +
            "/bin/python",
        "SELVANE_DEFAULT_ASSET_PLUGIN=FileAsset",
        "SELVANE_DEFAULT_FILE_SEQUENCE_PLUGIN=FileSequence",
    };
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
      if (const char* value = std::getenv(name)) environment.push_back(std::string(name) + "=" + value);
    // In sanitizer builds: the channels' sockets and callbacks live until
    // the process ends, by design.
    environment.push_back("LSAN_OPTIONS=suppressions=" KINDLET_SOURCE_DIR
                          "/tests/transport/lsan.supp");

    std::vector<std::string> arguments = {root + "/bin/kindlet-control", "--legacy-tcp", "--start"};
    arguments.insert(arguments.end(), controlOptions.begin(), controlOptions.end());
    arguments.insert(arguments.end(),
                     {"--", "-selvaneRoot", root, "-tempDir", scratch, "-arbolite3OpTree",
                      root + "/share/kindlet/examples/scene.optree.json", "-renderer",
                      "recording", "-renderMethodName", "liveRender", "-recordFile",
                      recordFile, "-sequenceID", "7"});

    std::vector<char*> argv, envp;
    for (std::string& text : arguments) argv.push_back(&text[0]);
    argv.push_back(nullptr);
    for (std::string& text : environment) envp.push_back(&text[0]);
    envp.push_back(nullptr);
    const std::string outputPath = scratch + "/output.txt";

    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      const int out = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(fds[0], 0);
      ::dup2(out, 1);
      ::dup2(out, 2);
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
    ::close(fds[0]);
    stdinPipe = fds[1];
  }

  void send(const std::string& lines) {
    ASSERT_EQ(::write(stdinPipe, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
  }

  // Waits for a line of the record file that starts with `slot`.
  bool waitForCall(const std::string& slot, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      for (const auto& call : recordedCalls(recordFile))
        if (call.first == slot) return true;
      if (::waitpid(pid, nullptr, WNOHANG) == pid) {
        pid = -1;
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  // Ends the script and returns kindlet-control's exit status.
  int finish() {
    ::close(stdinPipe);
    stdinPipe = -1;
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string output() { return readFile(scratch + "/output.txt"); }

  std::string scratch, recordFile;
  pid_t pid = -1;
  int stdinPipe = -1;
};

}  // namespace

TEST_F(LiveRenderEndToEnd, UpdatesAndCommandsFromStartToStop) {
  start();
  ASSERT_TRUE(waitForCall("startLiveEditing")) << output();
  // Spaced out, so that the loop is asleep for at least one of them.
  send("update {\"camera\": {\"fov\": 45.0}}\nsleep 100\n"
       "command custom words\n"
       "update {\"__perRenderUpdateAttributes\": {\"7\": {\"mine\": 1}, \"8\": {\"theirs\": 2}},"
       " \"common\": \"x\"}\nsleep 100\n"
       "raw-data 0300000000000000 ffffff\n"  // a frame that doesn't parse
       "update {\"last\": [1, 2]}\nsleep 200\n"
       "stop\n");
  EXPECT_EQ(finish(), 0) << output();
  EXPECT_NE(output().find("kindlet exited with status 0\n"), std::string::npos) << output();

  std::vector<std::string> mainCalls, updates;
  for (const auto& call : recordedCalls(recordFile)) {
    if (call.first == "submitUpdate") {
      updates.push_back(call.second);
    } else if (call.first != "hasQueuedUpdates" && call.first != "handleControlCommand") {
      // applyQueuedUpdates counts vary with timing; only their presence counts.
      mainCalls.push_back(call.first);
    }
  }
  EXPECT_EQ(updates, (std::vector<std::string>{"{camera={fov=45}}", "{mine=1,common=\"x\"}",
                                               "{last=[1 2]}"}));
  ASSERT_GE(mainCalls.size(), 7u);
  EXPECT_EQ(std::vector<std::string>(mainCalls.begin(), mainCalls.begin() + 4),
            (std::vector<std::string>{"create", "setup", "start", "startLiveEditing"}));
  EXPECT_EQ(std::vector<std::string>(mainCalls.end() - 4, mainCalls.end()),
            (std::vector<std::string>{"stopLiveEditing", "stop", "teardown", "destroy"}));
  EXPECT_EQ(mainCalls[4], "applyQueuedUpdates");
  EXPECT_NE(readFile(recordFile).find("handleControlCommand"), std::string::npos);
}
