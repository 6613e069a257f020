#include "ImageFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>
#include <algorithm>
#include <cmath>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace pathtracer {

namespace {

std::string lowerExtension(const std::string& path) {
  const size_t dot = path.rfind('.');
  const size_t slash = path.rfind('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string ext = path.substr(dot);
  for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

unsigned char toSrgb8(float linear) {
  const float c = linear <= 0 ? 0 : (linear >= 1 ? 1 : linear);
  const float s = c <= 0.0031308f ? 12.92f * c : 1.055f * std::pow(c, 1 / 2.4f) - 0.055f;
  return static_cast<unsigned char>(s * 255.0f + 0.5f);
}

bool failed(const std::string& what, std::string& error) {
  error = what + ": " + std::strerror(errno);
  return false;
}

bool writeAndSync(const std::string& path, const std::vector<unsigned char>& bytes,
                  std::string& error) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return failed("cannot create the image file", error);
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      failed("cannot write the image", error);
      ::close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  if (::fsync(fd) != 0) {
    failed("cannot sync the image", error);
    ::close(fd);
    return false;
  }
  return ::close(fd) == 0 || failed("closing the image failed", error);
}

bool syncFile(const std::string& path, std::string& error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return failed("cannot open the image to sync it", error);
  const bool synced = ::fsync(fd) == 0 || failed("cannot sync the image", error);
  ::close(fd);
  return synced;
}

}  // namespace

bool writeImageAtomically(const std::string& path, int width, int height,
                          const std::vector<float>& pixels, std::string& error,
                          const std::vector<std::string>& channels) {
  const std::string ext = lowerExtension(path);
  if (ext.empty()) {
    error = "the output path has no file extension to choose the format by";
    return false;
  }
  // Same folder (so the rename stays on one file system), same extension (so
  // the writer picks the same format), a name no other process uses.
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  static std::atomic<unsigned> serial{0};
  const std::string temp = folder + ".pathtracer-" + std::to_string(getpid()) + "-" +
                           std::to_string(serial++) + ext;

  auto out = OIIO::ImageOutput::create(temp);
  if (!out) {
    error = "no image writer for \"" + ext + "\": " + OIIO::geterror();
    return false;
  }
  // Where the writer can, it encodes into memory and the bytes are written
  // here, where every write, the sync and the close are checked: a writer's
  // own file output may drop a failure of its last flush.
  std::vector<unsigned char> encoded;
  OIIO::Filesystem::IOVecOutput memory(encoded);
  const bool inMemory = out->supports("ioproxy") && out->set_ioproxy(&memory);
  const bool floating = ext == ".exr" || ext == ".hdr" || ext == ".tif" || ext == ".tiff";
  // Outputs besides beauty go only where they have names: EXR.
  const bool layered = channels.size() > 3 && ext == ".exr";
  const size_t stride = std::max<size_t>(3, channels.size());
  std::vector<float> beauty;
  if (stride > 3 && !layered) {
    beauty.resize(pixels.size() / stride * 3);
    for (size_t i = 0; i < beauty.size() / 3; ++i)
      std::copy_n(&pixels[i * stride], 3, &beauty[3 * i]);
  }
  const std::vector<float>& rgb = stride > 3 && !layered ? beauty : pixels;
  OIIO::ImageSpec format(width, height, layered ? int(stride) : 3,
                         floating ? OIIO::TypeDesc::FLOAT : OIIO::TypeDesc::UINT8);
  if (layered) format.channelnames = channels;
  // Live renders rewrite the file after every pass: speed over size.
  if (ext == ".png") format.attribute("png:compressionLevel", 1);
  bool ok = out->open(temp, format);
  if (ok && floating) {
    ok = out->write_image(OIIO::TypeDesc::FLOAT, rgb.data());
  } else if (ok) {
    std::vector<unsigned char> bytes(rgb.size());
    for (size_t i = 0; i < rgb.size(); ++i) bytes[i] = toSrgb8(rgb[i]);
    ok = out->write_image(OIIO::TypeDesc::UINT8, bytes.data());
  }
  if (!ok) error = out->geterror();
  if (!out->close() && ok) {
    error = "closing the image failed: " + out->geterror();
    ok = false;
  }
  // Synced before the rename, so that after a crash the name holds the old
  // image or the whole new one.
  if (ok) ok = inMemory ? writeAndSync(temp, encoded, error) : syncFile(temp, error);
  if (ok && std::rename(temp.c_str(), path.c_str()) != 0) {
    error = std::string("cannot rename into place: ") + std::strerror(errno);
    ok = false;
  }
  if (!ok) std::remove(temp.c_str());
  return ok;
}

}  // namespace pathtracer
