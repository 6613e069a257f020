// Writing the rendered image: linear floats for EXR, 8-bit sRGB for PNG and
// the other 8-bit formats. The file appears whole or not at all, and synced.
#pragma once

#include <string>
#include <vector>

namespace pathtracer {

// `rgb` holds width * height * 3 linear values. Writes a temporary file
// beside `path` and renames it into place, so a reader sees the old image or
// the new one. Returns false (with the reason in `error`) on failure.
bool writeImageAtomically(const std::string& path, int width, int height,
                          const std::vector<float>& rgb, std::string& error);

}  // namespace pathtracer
