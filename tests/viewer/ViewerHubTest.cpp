// The hand-over between the registry's thread and the viewer's: frames
// newest-wins, edits coalesced, the wake-up and the edit descriptor.
#include <poll.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "ViewerHub.h"

namespace KindletControl {
namespace {

Frame frame(const std::string& text) { return std::make_shared<const std::string>(text); }

bool readable(int fd) {
  pollfd one = {fd, POLLIN, 0};
  return ::poll(&one, 1, 0) == 1;
}

TEST(ViewerHub, CameraEditsReplaceTheWaitingOneInItsPlace) {
  ViewerHub hub;
  std::vector<std::string> answers;
  auto edit = [&](const std::string& message, const std::string& key) {
    ViewerEdit e;
    e.message = message;
    e.coalesceKey = key;
    e.done = [&answers, message](const std::map<long, uint64_t>& states) {
      answers.push_back(message + (states.empty() ? " replaced" : " sent"));
    };
    hub.push(std::move(e));
  };
  EXPECT_FALSE(readable(hub.editFd()));
  edit("cam1", "camera@*");
  edit("light", "light@*");
  edit("cam2", "camera@*");
  edit("cam3", "camera@1");  // another render's camera
  EXPECT_EQ(answers, std::vector<std::string>{"cam1 replaced"});
  EXPECT_TRUE(readable(hub.editFd()));
  std::vector<ViewerEdit> taken = hub.takeEdits();
  ASSERT_EQ(taken.size(), 3u);
  EXPECT_EQ(taken[0].message, "cam2");
  EXPECT_EQ(taken[1].message, "light");
  EXPECT_EQ(taken[2].message, "cam3");
  EXPECT_FALSE(readable(hub.editFd()));
  hub.requestStop();
  EXPECT_TRUE(hub.stopRequested());
  EXPECT_TRUE(readable(hub.editFd()));
}

// Two threads as in kindlet-control: the viewer sees each image's newest
// frame, woken once per batch, and its edits reach the other side in order.
TEST(ViewerHub, TheViewerGetsTheNewestFramesAcrossThreads) {
  ViewerHub hub;
  std::atomic<int> wakes{0};
  hub.setWake([&] { ++wakes; });
  const int frames = 2000;
  std::thread viewer([&] {
    std::string last;
    for (int pushed = 0; last != "a" + std::to_string(frames - 1);) {
      for (auto& one : hub.takeFrames()) {
        if (one.first == "1/a") {
          EXPECT_GT(std::stoi(one.second->substr(1)), last.empty() ? -1 : std::stoi(last.substr(1)));
          last = *one.second;
        }
      }
      if (pushed < 100) {
        ViewerEdit edit;
        edit.message = std::to_string(pushed++);
        hub.push(std::move(edit));
      }
      std::this_thread::yield();
    }
    hub.requestStop();
  });
  std::vector<std::string> edits;
  for (int i = 0; i < frames; ++i) {
    hub.publish("1/a", frame("a" + std::to_string(i)));
    for (ViewerEdit& edit : hub.takeEdits()) edits.push_back(edit.message);
  }
  while (!hub.stopRequested()) std::this_thread::yield();
  viewer.join();
  for (ViewerEdit& edit : hub.takeEdits()) edits.push_back(edit.message);
  ASSERT_FALSE(edits.empty());
  for (size_t i = 0; i < edits.size(); ++i) EXPECT_EQ(edits[i], std::to_string(i));
  EXPECT_GE(wakes.load(), 1);
  EXPECT_LE(wakes.load(), frames);
}

}  // namespace
}  // namespace KindletControl
