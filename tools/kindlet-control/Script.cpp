#include "Script.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>

#include "XoAttribute/Attribute.h"
#include "XoScenegraph/AttributeJson.h"

namespace KindletControl {

namespace {

const size_t recordSize = 256;

bool parseHex(const std::string& text, std::string& bytes, std::string& error) {
  bytes.clear();
  int high = -1;
  for (char c : text) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) {
      error = std::string("not a hex digit: '") + c + "'";
      return false;
    }
    const int value = std::isdigit(static_cast<unsigned char>(c))
                          ? c - '0'
                          : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    if (high < 0) {
      high = value;
    } else {
      bytes.push_back(static_cast<char>(high * 16 + value));
      high = -1;
    }
  }
  if (high >= 0) {
    error = "odd number of hex digits";
    return false;
  }
  return true;
}

}  // namespace

std::string dataFrame(const std::string& payload) {
  std::string frame(8, '\0');
  uint64_t length = payload.size();
  for (int i = 0; i < 8; ++i, length >>= 8) frame[i] = static_cast<char>(length & 0xff);
  return frame + payload;
}

bool controlRecord(const std::string& text, std::string& record, std::string& error) {
  if (text.size() >= recordSize) {
    error = "command longer than 255 bytes";
    return false;
  }
  record = text;
  record.resize(recordSize, '\0');
  return true;
}

bool parseLine(const std::string& line, Step& step, std::string& error) {
  step = Step();
  size_t begin = line.find_first_not_of(" \t\r");
  if (begin == std::string::npos || line[begin] == '#') return true;
  size_t end = line.find_last_not_of(" \t\r") + 1;
  const std::string trimmed = line.substr(begin, end - begin);
  const size_t space = trimmed.find_first_of(" \t");
  const std::string word = trimmed.substr(0, space);
  // The argument keeps its inner spacing: a command text is sent as written.
  const std::string argument =
      space == std::string::npos ? std::string() : trimmed.substr(space + 1);

  if (word == "update") {
    std::string reason;
    const Arbolite3::internal::XoAttribute::Attribute attr =
        Arbolite3::internal::attributeFromJsonText(argument, &reason);
    if (!attr.isValid()) {
      error = "update: " + (reason.empty() ? std::string("not valid JSON") : reason);
      return false;
    }
    if (attr.getType() != Arbolite3::internal::XoAttribute::kTypeGroup) {
      error = "update: the JSON must be an object (a group)";
      return false;
    }
    step.kind = Step::SendData;
    step.bytes = dataFrame(attr.getBinary());
    return true;
  }
  if (word == "command") {
    step.kind = Step::SendControl;
    if (!controlRecord(argument, step.bytes, error)) return false;
    if (argument.empty()) {
      error = "command: no text (an empty record would be ignored; use raw-control)";
      return false;
    }
    return true;
  }
  if (word == "raw-data" || word == "raw-control") {
    step.kind = word == "raw-data" ? Step::SendData : Step::SendControl;
    if (!parseHex(argument, step.bytes, error)) {
      error = word + ": " + error;
      return false;
    }
    return true;
  }
  if (word == "sleep") {
    char* rest = nullptr;
    step.milliseconds = std::strtol(argument.c_str(), &rest, 10);
    if (argument.empty() || *rest != '\0' || step.milliseconds < 0) {
      error = "sleep: expected milliseconds";
      return false;
    }
    step.kind = Step::Sleep;
    return true;
  }
  static const struct {
    const char* word;
    Step::Kind kind;
  } plain[] = {
      {"close-data", Step::CloseData},   {"close-control", Step::CloseControl},
      {"reset-data", Step::ResetData},   {"reset-control", Step::ResetControl},
      {"wait", Step::Wait},              {"stop", Step::Stop},
  };
  for (const auto& entry : plain) {
    if (word == entry.word) {
      if (!argument.empty()) {
        error = word + ": takes no argument";
        return false;
      }
      step.kind = entry.kind;
      return true;
    }
  }
  error = "unknown command '" + word + "'";
  return false;
}

}  // namespace KindletControl
