#include "JsonFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include "base/RetryingIO.h"

namespace Farm {

void writeJsonFile(const std::string& path, const rapidjson::Document& document) {
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  document.Accept(writer);
  const std::string text = std::string(buffer.GetString(), buffer.GetSize()) + "\n";

  const std::string temporary = path + ".tmp." + std::to_string(getpid());
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("cannot write " + temporary);
  const ssize_t written = Arbolite3::Base::writeRetrying(fd, text.data(), text.size(), nullptr);
  // The file is read on other machines: it must be on the disk before the name.
  const bool synced = fsync(fd) == 0;
  close(fd);
  if (written != static_cast<ssize_t>(text.size()) || !synced ||
      rename(temporary.c_str(), path.c_str()) != 0) {
    unlink(temporary.c_str());
    throw std::runtime_error("cannot write " + path);
  }
}

bool readJsonFile(const std::string& path, rapidjson::Document& document) {
  std::ifstream in(path);
  if (!in) return false;
  std::stringstream text;
  text << in.rdbuf();
  document.Parse(text.str().c_str());
  return !document.HasParseError() && document.IsObject();
}

std::string jsonString(const rapidjson::Value& object, const char* name, const std::string& fallback) {
  if (!object.IsObject()) return fallback;
  auto member = object.FindMember(name);
  if (member == object.MemberEnd() || !member->value.IsString()) return fallback;
  return std::string(member->value.GetString(), member->value.GetStringLength());
}

double jsonNumber(const rapidjson::Value& object, const char* name, double fallback) {
  if (!object.IsObject()) return fallback;
  auto member = object.FindMember(name);
  if (member == object.MemberEnd() || !member->value.IsNumber()) return fallback;
  return member->value.GetDouble();
}

}  // namespace Farm
