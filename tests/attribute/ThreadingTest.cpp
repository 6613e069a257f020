// Attributes shared between threads that read, copy, serialise and release
// them while the owner lets go. Meaningful under TSan.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "SampleAttributes.h"
#include "XoAttribute/Attribute.h"
#include "XoAttribute/XoAttributeC.h"

using namespace Arbolite3::internal::XoAttribute;

TEST(Threading, SharedTreesAcrossThreads) {
  GroupAttribute tree = sample::everyType();
  const std::string expectedXml = tree.getXML();
  const std::string bytes = tree.getBinary();
  std::atomic<int> failures{0};
  std::atomic<bool> go{false};

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    // Each thread gets its own reference through the C boundary and drops it
    // at the end, possibly after the owner has dropped its own.
    XoAttributeStruct* handle = tree.getRetainedHandle();
    threads.emplace_back([handle, &expectedXml, &bytes, &failures, &go] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < 200; ++i) {
        GroupAttribute mine(Attribute::fromHandle(handle));
        Attribute child = mine.getChildByName("nested.deeper.leaf");
        XoAttributeStruct* c = child.getRetainedHandle();
        if (IntAttribute(child).getValue() != 42) ++failures;
        XoAttributeRelease(c);
        if (i % 50 == 0 && mine.getXML() != expectedXml) ++failures;
        Attribute parsed = Attribute::parseBinary(bytes.data(), bytes.size());
        if (!(parsed == mine)) ++failures;
        GroupBuilder b;
        b.update(mine).set("extra", IntAttribute(i));
        if (b.build().getNumberOfChildren() != mine.getNumberOfChildren() + 1) ++failures;
      }
      XoAttributeRelease(handle);
    });
  }
  go = true;
  tree = GroupAttribute();
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
}
