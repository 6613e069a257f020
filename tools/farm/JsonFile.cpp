#include "JsonFile.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include "base/ReplaceFile.h"

namespace Farm {

void writeJsonFile(const std::string& path, const rapidjson::Document& document) {
  rapidjson::StringBuffer buffer;
  rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
  document.Accept(writer);
  const std::string text = std::string(buffer.GetString(), buffer.GetSize()) + "\n";
  if (Arbolite3::Base::replaceFile(path, text, true) != 0)
    throw std::runtime_error("cannot write " + path);
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
