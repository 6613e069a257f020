// Writing the rendered image: linear floats for EXR, 8-bit sRGB for PNG and
// the other 8-bit formats. The file appears whole or not at all, and synced.
#pragma once

#include <string>
#include <vector>

namespace pathtracer {

// `rgb` holds width * height * 3 linear values, or as many per pixel as
// `channels` names, beauty's RGB first: an EXR gets them all, other formats
// beauty alone. Writes a temporary file beside `path` and renames it into
// place, so a reader sees the old image or the new one. Returns false (with
// the reason in `error`) on failure.
bool writeImageAtomically(const std::string& path, int width, int height,
                          const std::vector<float>& rgb, std::string& error,
                          const std::vector<std::string>& channels = {});

}  // namespace pathtracer
