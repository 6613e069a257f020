// The outputs a user expects of each frame (--expect-output, "#" runs for the
// frame number): a frame is credited only when each of them was written by
// the attempt that claims the frame and looks whole.
#pragma once

#include <sys/types.h>

#include <string>

namespace Farm {

// Each run of "#" becomes the frame number, zero-padded to the run's length
// ("-" before it for a negative frame), as the path tracer names its images.
std::string outputPathForFrame(const std::string& pattern, int frame);

// What was at an output's path before the attempt ran.
struct OutputSnapshot {
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;
  long long modifiedNanoseconds = 0;
  off_t size = 0;
};
OutputSnapshot snapshotOutput(const std::string& path);

// Empty when `path` holds a file that is not the one of `before` (replaced or
// rewritten since) and looks whole: not empty, and for PNG, JPEG and EXR
// files with the bytes their format ends (or starts) with. Otherwise the
// reason, naming the path.
std::string checkOutput(const std::string& path, const OutputSnapshot& before);

}  // namespace Farm
