#include "FrameOutputs.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <fstream>

namespace Farm {

namespace {

std::string lowerExtension(const std::string& path) {
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return "";
  std::string extension = path.substr(dot);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

// The bytes at `offset` (from the end when negative) are `expected`.
bool hasBytes(const std::string& path, long long offset, const std::string& expected) {
  std::ifstream file(path, std::ios::binary);
  file.seekg(offset, offset < 0 ? std::ios::end : std::ios::beg);
  std::string found(expected.size(), '\0');
  return file.read(&found[0], static_cast<std::streamsize>(found.size())) && found == expected;
}

// A format whose files tell whether they are whole: how they must end or begin.
bool looksWhole(const std::string& path) {
  const std::string extension = lowerExtension(path);
  if (extension == ".png") return hasBytes(path, -12, std::string("\0\0\0\0IEND\xae\x42\x60\x82", 12));
  if (extension == ".jpg" || extension == ".jpeg") return hasBytes(path, -2, "\xff\xd9");
  if (extension == ".exr") return hasBytes(path, 0, "\x76\x2f\x31\x01");
  return true;
}

}  // namespace

std::string outputPathForFrame(const std::string& pattern, int frame) {
  std::string path;
  for (size_t i = 0; i < pattern.size();) {
    if (pattern[i] != '#') {
      path += pattern[i++];
      continue;
    }
    size_t run = 0;
    while (i < pattern.size() && pattern[i] == '#') ++run, ++i;
    std::string digits = std::to_string(frame < 0 ? -static_cast<long long>(frame) : frame);
    if (digits.size() < run) digits.insert(0, run - digits.size(), '0');
    path += (frame < 0 ? "-" : "") + digits;
  }
  return path;
}

OutputSnapshot snapshotOutput(const std::string& path) {
  OutputSnapshot snapshot;
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return snapshot;
  snapshot.exists = true;
  snapshot.device = info.st_dev;
  snapshot.inode = info.st_ino;
  snapshot.modifiedNanoseconds = info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec;
  snapshot.size = info.st_size;
  return snapshot;
}

std::string checkOutput(const std::string& path, const OutputSnapshot& before) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return "output " + path + " is missing";
  const OutputSnapshot now = snapshotOutput(path);
  if (before.exists && now.device == before.device && now.inode == before.inode &&
      now.modifiedNanoseconds == before.modifiedNanoseconds && now.size == before.size)
    return "output " + path + " was not written by this attempt";
  if (info.st_size == 0 || !looksWhole(path)) return "output " + path + " is incomplete";
  return "";
}

}  // namespace Farm
