#include "OpTreeFiles.h"

#include <boost/filesystem/operations.hpp>

std::vector<std::string> expandOpTreeFiles(const std::string& pattern, const std::string& frames) {
  if (pattern.find('*') == std::string::npos) return {pattern};
  std::vector<std::string> files;
  for (int frame : parseFrameList(frames)) {
    const std::string name = Arbolite3::Base::substituteFrame(pattern, frame);
    if (boost::filesystem::status(boost::filesystem::path(name)).type() ==
        boost::filesystem::regular_file) {
      files.push_back(name);
    }
  }
  return files;
}
