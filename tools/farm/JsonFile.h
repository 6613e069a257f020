// Small JSON files of a farm job, shared between machines through the job
// directory: written whole (temporary file, then rename) so that a reader on
// another host never sees half a file.
#pragma once

#include <string>

#include <rapidjson/document.h>

namespace Farm {

// Throws std::runtime_error naming the path when it can't be written.
void writeJsonFile(const std::string& path, const rapidjson::Document& document);

// False when the file is missing, unreadable or not valid JSON.
bool readJsonFile(const std::string& path, rapidjson::Document& document);

// Member accessors that give `fallback` for a missing or mistyped member.
std::string jsonString(const rapidjson::Value& object, const char* name, const std::string& fallback = "");
double jsonNumber(const rapidjson::Value& object, const char* name, double fallback = 0);

}  // namespace Farm
