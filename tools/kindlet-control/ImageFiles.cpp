#include "ImageFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <OpenImageIO/imageio.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

#include "XoLoggingHost/XoLoggerGlue.h"

namespace KindletControl {

namespace {

const XoLoggingHost::XoLoggerGlue& channel() {
  static const XoLoggingHost::XoLoggerGlue logger("KindletControl");
  return logger;
}

}  // namespace

ImageFiles::ImageFiles(std::string directory_) : directory(std::move(directory_)) {
  thread = std::thread(&ImageFiles::run, this);
}

ImageFiles::~ImageFiles() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  changed.notify_all();
  thread.join();
}

void ImageFiles::pass(const ImageSource& source, const ImageOpen& image, const ImagePass& pass,
                      const unsigned char* pixels) {
  if (channel().debugEnabled()) {
    std::ostringstream text;
    text << "image " << image.name << " of session " << source.sessionName << " sequenceID "
         << source.sequenceID << ": pass " << pass.pass << ", " << pass.samples
         << " samples, scene state " << pass.sceneState;
    channel().debug(text.str(), "tools/kindlet-control/ImageFiles", __LINE__);
  }
  const std::string path =
      directory + "/" + std::to_string(source.sequenceID) + "." + image.name + ".exr";
  std::vector<unsigned char> buffer;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!spare.empty()) {
      buffer = std::move(spare.back());
      spare.pop_back();
    }
  }
  buffer.assign(pixels, pixels + image.pixelBytes());
  std::lock_guard<std::mutex> lock(mutex);
  Waiting& slot = waiting[path];
  if (!slot.pixels.empty()) spare.push_back(std::move(slot.pixels));  // replaced: never written
  slot = Waiting{image, pass, source.sessionName, std::move(buffer)};
  changed.notify_one();
}

void ImageFiles::run() {
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    changed.wait(lock, [&] { return stopping || !waiting.empty(); });
    if (waiting.empty()) return;
    auto next = waiting.begin();
    const std::string path = next->first;
    Waiting one = std::move(next->second);
    waiting.erase(next);
    lock.unlock();
    write(path, one);
    lock.lock();
    spare.push_back(std::move(one.pixels));
  }
}

bool ImageFiles::write(const std::string& path, const Waiting& waiting) {
  const ImageOpen& image = waiting.image;
  const std::string temporary = path + ".partial.exr";  // the extension names the format
  OIIO::ImageSpec layout(image.width, image.height, int(image.channels.size()),
                       image.half ? OIIO::TypeDesc::HALF : OIIO::TypeDesc::FLOAT);
  layout.channelnames = image.channels;
  layout.alpha_channel = -1;
  for (size_t i = 0; i < image.channels.size(); ++i)
    if (image.channels[i] == "A") layout.alpha_channel = int(i);
  layout.attribute("kindlet:pass", int(waiting.pass.pass));
  layout.attribute("kindlet:samples", int(waiting.pass.samples));
  layout.attribute("kindlet:sceneState", int(waiting.pass.sceneState));
  auto out = OIIO::ImageOutput::create(temporary);
  bool ok = out && out->open(temporary, layout) && out->write_image(layout.format, waiting.pixels.data());
  if (out && !(out->close() && ok)) ok = false;
  if (ok) {
    // What the rename publishes must be on the disk first.
    const int fd = ::open(temporary.c_str(), O_RDONLY | O_CLOEXEC);
    ok = fd >= 0 && ::fsync(fd) == 0;
    if (fd >= 0) ::close(fd);
    ok = ok && std::rename(temporary.c_str(), path.c_str()) == 0;
  }
  if (!ok) {
    const std::string reason = out ? out->geterror() : OIIO::geterror();
    std::cerr << "kindlet-control: cannot write " << path << ": "
              << (reason.empty() ? std::strerror(errno) : reason) << std::endl;
    std::remove(temporary.c_str());
  }
  return ok;
}

}  // namespace KindletControl
