#include "XoRenderServices/AnalyticsReport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "XoRenderServices/AnalyticsManager.h"

namespace Arbolite3 {
namespace XoRenderServices {
namespace v1 {

namespace {

std::string reportPrefix(const std::string& host, int pid) {
  return "kindlet-" + host + "-" + std::to_string(pid) + "-";
}

}  // namespace

std::string analyticsReportName(const std::string& host, int pid, long long start) {
  return reportPrefix(host, pid) + std::to_string(start) + ".json";
}

std::string findAnalyticsReport(const std::string& directory, int pid, long long start) {
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) != 0) std::snprintf(host, sizeof host, "localhost");
  if (start < 0) return std::string();
  const std::string path = directory + "/" + analyticsReportName(host, pid, start);
  struct stat found;
  return ::stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode) ? path : std::string();
}

bool readAnalyticsRecord(const std::string& path, const std::string& name, std::string& json) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  rapidjson::Document report;
  if (!file || report.Parse(text.str().c_str()).HasParseError() || !report.IsObject() ||
      !report.HasMember("version") || !report["version"].IsInt() ||
      report["version"].GetInt() != 1 || !report.HasMember("records") ||
      !report["records"].IsArray())
    return false;
  for (const rapidjson::Value& record : report["records"].GetArray()) {
    if (!record.IsObject() || !record.HasMember("name") || !record["name"].IsString() ||
        name != record["name"].GetString() || !record.HasMember("value"))
      continue;
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    record["value"].Accept(writer);
    json = buffer.GetString();
    return true;
  }
  return false;
}

}  // namespace v1
}  // namespace XoRenderServices
}  // namespace Arbolite3
