// "Save image" of the viewer: the newest pass of the image a page watches,
// written on the controller's disk.
#pragma once

#include <string>

namespace KindletControl {

// Writes `frame` (ViewerFrame.h) into `directory` under a new name,
// "<sequenceID>.<image>.<n>.exr" (linear half floats, all channels) or ".png"
// (R, G and B scaled by 2^exposure, sRGB-encoded 8-bit, as the page shows
// it). The path written, or "" with `error` set.
std::string saveFrame(const std::string& frame, const std::string& directory, bool png,
                      double exposure, std::string& error);

}  // namespace KindletControl
