// One view on several kindlets: their passes merged into one image per name,
// weighted by samples, one scene state at a time.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <cstring>
#include <sstream>

#include "merge/ImageMerge.h"

using namespace KindletControl;

namespace {

struct Seen {
  uint64_t samples, sceneState;
  float value;  // of the first channel of the first pixel
};

class Last : public ImageConsumer {
 public:
  void pass(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
            const unsigned char* pixels) override {
    EXPECT_EQ(source.sessionName, "merged");
    float value;
    if (image.half) {
      Imath::half h;
      uint16_t bits;
      std::memcpy(&bits, pixels, 2);
      h.setBits(bits);
      value = h;
    } else {
      std::memcpy(&value, pixels, 4);
    }
    seen.push_back({pass.samples, pass.sceneState, value});
  }
  std::vector<Seen> seen;
};

ImageSource kindlet(long pid) {
  ImageSource source;
  source.sessionName = "LiveRenderSession";
  source.pid = pid;
  return source;
}

// A 2x1 RGB image, every value `value`.
void send(ImageMerge& merge, const ImageOpen& open, long pid, uint64_t samples, uint64_t state,
          float value) {
  std::vector<unsigned char> pixels(open.pixelBytes());
  for (size_t i = 0; i < 6; ++i) {
    if (open.half) {
      const uint16_t bits = Imath::half(value).bits();
      std::memcpy(&pixels[2 * i], &bits, 2);
    } else {
      std::memcpy(&pixels[4 * i], &value, 4);
    }
  }
  ImagePass pass;
  pass.samples = samples;
  pass.sceneState = state;
  merge.pass(kindlet(pid), open, pass, pixels.data());
}

class Merge : public testing::TestWithParam<bool> {
 protected:
  Merge() : merge(last, log) {
    open.name = "beauty";
    open.width = 2;
    open.height = 1;
    open.channels = {"R", "G", "B"};
    open.half = GetParam();
  }
  Last last;
  std::ostringstream log;
  ImageMerge merge;
  ImageOpen open;
};

// Each kindlet's newest pass counts by its samples: twice the samples, twice
// the weight; a kindlet's newer pass replaces its older one.
TEST_P(Merge, WeightsBySamplesAndKeepsEachKindletsNewestPass) {
  send(merge, open, 1, 2, 0, 1.0f);
  send(merge, open, 2, 1, 0, 4.0f);
  ASSERT_EQ(last.seen.size(), 2u);
  EXPECT_EQ(last.seen[1].samples, 3u);
  EXPECT_FLOAT_EQ(last.seen[1].value, 2.0f);  // (2 x 1 + 1 x 4) / 3
  send(merge, open, 2, 3, 0, 4.0f);
  EXPECT_EQ(last.seen[2].samples, 5u);
  EXPECT_NEAR(last.seen[2].value, 2.8f, 2e-3);  // (2 x 1 + 3 x 4) / 5
  merge.closed(kindlet(2), open);
  EXPECT_NE(log.str().find("pid 2 left the view; image beauty goes on from 1 kindlets (2 samples)"),
            std::string::npos) << log.str();
  send(merge, open, 1, 3, 0, 1.0f);
  EXPECT_EQ(last.seen[3].samples, 3u);
  EXPECT_FLOAT_EQ(last.seen[3].value, 1.0f);
}

// A newer state's first pass drops the older state; the older state's late
// passes are left out; its quick image shows until full samples come, and
// not after.
TEST_P(Merge, NeverMixesSceneStates) {
  send(merge, open, 1, 4, 0, 1.0f);
  send(merge, open, 2, 4, 0, 1.0f);
  send(merge, open, 1, 0, 1, 7.0f);  // the edit's quick image
  send(merge, open, 2, 5, 0, 1.0f);  // the other kindlet, not there yet
  send(merge, open, 1, 1, 1, 3.0f);
  send(merge, open, 2, 0, 1, 9.0f);  // late quick image: full samples are there
  send(merge, open, 2, 1, 1, 5.0f);
  ASSERT_EQ(last.seen.size(), 5u);
  EXPECT_EQ(last.seen[2].sceneState, 1u);
  EXPECT_EQ(last.seen[2].samples, 0u);
  EXPECT_FLOAT_EQ(last.seen[2].value, 7.0f);
  EXPECT_EQ(last.seen[3].samples, 1u);
  EXPECT_FLOAT_EQ(last.seen[3].value, 3.0f);
  EXPECT_EQ(last.seen[4].samples, 2u);
  EXPECT_FLOAT_EQ(last.seen[4].value, 4.0f);
  ImageOpen bigger = open;
  bigger.width = 4;
  send(merge, bigger, 2, 2, 1, 5.0f);
  EXPECT_EQ(last.seen.size(), 5u);
  EXPECT_NE(log.str().find("has another size or channels"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(PixelTypes, Merge, testing::Values(true, false),
                         [](const testing::TestParamInfo<bool>& info) {
                           return std::string(info.param ? "Half" : "Float");
                         });

}  // namespace
