#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "KindletTestSupport.h"
#include "XoScenegraph/XoScenegraphIterator.h"

using Arbolite3::internal::XoScenegraphIterator;
using namespace Arbolite3::internal::XoAttribute;
using testing::ElementsAre;

namespace {

std::string example(const std::string& name) {
  return std::string(KINDLET_SOURCE_DIR) + "/examples/" + name;
}

std::vector<std::string> childNames(const XoScenegraphIterator& parent) {
  std::vector<std::string> names;
  for (XoScenegraphIterator it = parent.getFirstChild(); it.isValid(); it = it.getNextSibling())
    names.push_back(it.getName());
  return names;
}

TEST(OpTreeRead, ExampleSceneNavigatesAndLooksUpAttributes) {
  XoScenegraphIterator root =
      XoScenegraphIterator::getIteratorFromFile(example("scene.optree.json"));
  ASSERT_TRUE(root.isValid());
  EXPECT_EQ(root.getName(), "root");
  EXPECT_EQ(root.getFullName(), "/root");
  EXPECT_EQ(root.getType(), "root");
  EXPECT_FALSE(root.getNextSibling().isValid());
  EXPECT_THAT(childNames(root), ElementsAre("world", "materials"));
  EXPECT_THAT(childNames(root.getChildByName("world")), ElementsAre("cam", "lgt", "geo"));

  XoScenegraphIterator key =
      root.getChildByName("world").getChildByName("lgt").getChildByName("key");
  ASSERT_TRUE(key.isValid());
  EXPECT_EQ(key.getFullName(), "/root/world/lgt/key");
  EXPECT_EQ(key.getType(), "light");

  FloatAttribute color(key.getAttribute("material.params.color"));
  ASSERT_TRUE(color.isValid());
  EXPECT_EQ(color.getTupleSize(), 3u);
  EXPECT_THAT(color.getValues(), ElementsAre(1.0f, 0.92f, 0.85f));
  EXPECT_EQ(IntAttribute(key.getAttribute("mute")).getValue(-1), 0);
  EXPECT_EQ(StringAttribute(key.getAttributes().getChildByName("material.lightShader")).getValue(),
            "rectLight");
  EXPECT_FALSE(key.getAttribute("material.params.missing").isValid());
  EXPECT_FALSE(key.getAttribute("").isValid());

  // Locations without attributes or type get an empty group and "group".
  XoScenegraphIterator lgt = root.getChildByName("world").getChildByName("lgt");
  EXPECT_EQ(lgt.getType(), "group");
  EXPECT_EQ(lgt.getAttributes().getNumberOfChildren(), 0u);
  EXPECT_FALSE(root.getChildByName("nothing").isValid());
}

TEST(OpTreeRead, FrameFilesLoad) {
  for (const char* name : {"frames/shot.000001.optree.json", "frames/shot.000002.optree.json"}) {
    XoScenegraphIterator root = XoScenegraphIterator::getIteratorFromFile(example(name));
    ASSERT_TRUE(root.isValid()) << name;
    EXPECT_TRUE(root.getChildByName("world").getChildByName("lgt").getChildByName("sun").isValid());
  }
}

TEST(OpTreeRead, CursorsKeepTheTreeAliveAndCrossTheCBoundary) {
  XoSgIteratorStruct* handle = nullptr;
  {
    XoScenegraphIterator root = XoScenegraphIterator::getIteratorFromText(
        R"({"optree": 1, "root": {"name": "top", "children": [
              {"name": "a", "attributes": {"x": 1}}, {"name": "b"}]}})");
    ASSERT_TRUE(root.isValid());
    EXPECT_EQ(root.getFullName(), "/top");
    handle = XoSgIteratorGetFirstChild(root.getHandle());  // retained, outlives `root`
  }
  ASSERT_NE(handle, nullptr);
  EXPECT_STREQ(XoSgIteratorGetFullName(handle), "/top/a");
  EXPECT_STREQ(XoSgIteratorGetType(handle), "group");
  EXPECT_EQ(XoAttributeGetIntValues(XoSgIteratorGetAttribute(handle, "x"))[0], 1);
  EXPECT_EQ(XoSgIteratorGetAttribute(handle, "y"), nullptr);
  EXPECT_EQ(XoAttributeGetNumberOfChildren(XoSgIteratorGetAttributes(handle)), 1u);

  XoScenegraphIterator wrapped = XoScenegraphIterator::fromHandle(handle);
  XoSgIteratorRelease(handle);  // the wrapper holds its own reference
  EXPECT_EQ(wrapped.getNextSibling().getFullName(), "/top/b");
  EXPECT_EQ(XoSgIteratorGetChildByName(wrapped.getHandle(), "none"), nullptr);

  // Null handles are harmless.
  EXPECT_STREQ(XoSgIteratorGetName(nullptr), "");
  EXPECT_EQ(XoSgIteratorGetFirstChild(nullptr), nullptr);
  XoSgIteratorRelease(nullptr);
  EXPECT_EQ(XoScenegraphIterator().getName(), "");
  EXPECT_FALSE(XoScenegraphIterator().getAttributes().isValid());
}

// Copies of cursors on one tree are walked and dropped on several threads.
TEST(OpTreeRead, ConcurrentWalksShareOneTree) {
  XoScenegraphIterator root =
      XoScenegraphIterator::getIteratorFromFile(example("scene.optree.json"));
  ASSERT_TRUE(root.isValid());
  std::vector<std::thread> threads;
  std::vector<int> counts(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([root, &counts, t] {
      for (int round = 0; round < 200; ++round) {
        std::vector<XoScenegraphIterator> stack{root};
        while (!stack.empty()) {
          XoScenegraphIterator it = stack.back();
          stack.pop_back();
          ++counts[t];
          it.getAttributes().getNumberOfChildren();
          for (XoScenegraphIterator c = it.getFirstChild(); c.isValid(); c = c.getNextSibling())
            stack.push_back(c);
        }
      }
    });
  }
  root = XoScenegraphIterator();
  for (auto& thread : threads) thread.join();
  for (int count : counts) EXPECT_EQ(count, 200 * 11);  // 11 locations
}

}  // namespace
