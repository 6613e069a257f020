// kindlet-control --images DIR: every image a render sends becomes the file
// DIR/<sequenceID>.<image>.exr, replaced (atomically, by a rename) as passes
// arrive. Files are written on a thread of their own; a pass that arrives
// while its image is being written replaces the one waiting, so a slow disk
// delays neither the registry nor the render and writes only the newest.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ImageReceiver.h"

namespace KindletControl {

class ImageFiles : public ImageConsumer {
 public:
  explicit ImageFiles(std::string directory);
  // Writes what still waits, then stops the thread.
  ~ImageFiles() override;

  void pass(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
            const unsigned char* pixels) override;

 private:
  struct Waiting {
    ImageOpen image;
    ImagePass pass;
    std::string session;
    std::vector<unsigned char> pixels;
  };
  void run();
  bool write(const std::string& path, const Waiting& waiting);

  const std::string directory;
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, Waiting> waiting;  // by file path
  std::vector<std::vector<unsigned char>> spare;  // buffers to reuse
  bool stopping = false;
  std::thread thread;
};

}  // namespace KindletControl
