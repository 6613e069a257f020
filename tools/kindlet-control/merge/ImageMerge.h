// One view rendered by several kindlets, each rendering its own share of the
// samples: their passes become one image per name, the sample-weighted mean
// of each kindlet's newest pass of the newest scene state, handed on to
// another consumer (--images files, the viewer) as if one render sent it.
//
// A pass carries the mean of the samples its kindlet has rendered so far in
// its scene state, so its weight is its sample count. States are never mixed:
// the first pass of a newer state drops everything of the older one, and
// passes of an older state that arrive later are dropped. Until some kindlet
// has a full sample of the new state, its quick first image (0 samples) is
// handed on as it is, so an edit shows as soon as one kindlet has it.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "ImageReceiver.h"

namespace KindletControl {

class ImageMerge : public ImageConsumer {
 public:
  // `log` gets one line when a kindlet leaves the view.
  ImageMerge(ImageConsumer& downstream, std::ostream& log);

  std::vector<std::string> wanted() const override { return downstream.wanted(); }
  void pass(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
            const unsigned char* pixels) override;
  void closed(const ImageSource& source, const ImageOpen& image) override;

  // The render the merged images seem to come from.
  static ImageSource mergedSource();

 private:
  struct Contribution {
    uint64_t samples = 0;
    std::vector<unsigned char> pixels;  // as sent: the kindlet's mean
  };
  struct Merged {
    ImageOpen open;  // the layout of the state's first pass; pixels inline
    uint64_t sceneState = 0;
    std::map<std::string, Contribution> from;  // by kindlet ("<pid>/<session>")
    std::vector<float> sum;                    // samples x mean, over `from`
    uint64_t samples = 0;                      // over `from`
    uint64_t passes = 0;                       // handed on
    std::vector<unsigned char> out;
    bool layoutWarned = false;
  };
  void startState(Merged& merged, const ImageOpen& image, uint64_t sceneState);
  // sum += weight x the pixels (in the image's own pixel type).
  void accumulate(Merged& merged, const unsigned char* pixels, double weight) const;
  void handOn(Merged& merged, uint64_t samples, const unsigned char* pixels);

  ImageConsumer& downstream;
  std::ostream& log;
  std::map<std::string, Merged> images;  // by name
};

}  // namespace KindletControl
