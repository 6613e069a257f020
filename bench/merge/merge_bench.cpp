// One pass of one kindlet into the merged view (ImageMerge): the kindlet's
// previous pass taken out of the running sum, the new one added, the merged
// image made and handed on, at 1920x1080 RGBA half, for views of 2 to 100
// kindlets (the cost per pass should not depend on their number). Beside a
// memcpy of the same bytes. See docs/merge-scaling.md.
#include <cstring>
#include <iostream>
#include <vector>

#include <benchmark/benchmark.h>

#include "merge/ImageMerge.h"

using namespace KindletControl;

namespace {

const int kWidth = 1920, kHeight = 1080;

class Discard : public ImageConsumer {
 public:
  void pass(const ImageSource&, const ImageOpen&, const ImagePass& pass,
            const unsigned char* pixels) override {
    benchmark::DoNotOptimize(pixels[0]);
    samples = pass.samples;
  }
  uint64_t samples = 0;
};

ImageOpen fullHd() {
  ImageOpen open;
  open.name = "beauty";
  open.width = kWidth;
  open.height = kHeight;
  open.channels = {"R", "G", "B", "A"};
  open.half = true;
  return open;
}

void BM_MergeOnePass(benchmark::State& state) {
  const int kindlets = int(state.range(0));
  const ImageOpen open = fullHd();
  std::vector<unsigned char> pixels(open.pixelBytes());
  for (size_t i = 0; i < pixels.size(); i += 2) {
    pixels[i] = 0;
    pixels[i + 1] = 0x3c;  // 1.0
  }
  Discard out;
  ImageMerge merge(out, std::cerr);
  std::vector<ImageSource> sources(kindlets);
  ImagePass pass;
  for (int k = 0; k < kindlets; ++k) {
    sources[k].sessionName = "LiveRenderSession_1";
    sources[k].pid = 1000 + k;
    pass.samples = 1;
    merge.pass(sources[k], open, pass, pixels.data());
  }
  uint64_t round = 1;
  int next = 0;
  for (auto _ : state) {
    pass.samples = round + 1;
    merge.pass(sources[next], open, pass, pixels.data());
    if (++next == kindlets) {
      next = 0;
      ++round;
    }
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(pixels.size()));
}
BENCHMARK(BM_MergeOnePass)->Arg(2)->Arg(10)->Arg(100)->Unit(benchmark::kMillisecond);

void BM_MemcpyOnePass(benchmark::State& state) {
  std::vector<unsigned char> from(fullHd().pixelBytes(), 1), to(from.size());
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::DoNotOptimize(to.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(from.size()));
}
BENCHMARK(BM_MemcpyOnePass)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
