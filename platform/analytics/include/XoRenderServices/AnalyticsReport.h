// Reading side of analytics reports, for the parents of the processes that
// write them. See docs/analytics.md for the file format.
#pragma once

#include <string>

namespace Arbolite3 {
namespace XoRenderServices {
namespace v1 {

// The file name a process gives its report: kindlet-<host>-<pid>-<start>.json,
// <start> being its creation time in microseconds since boot.
std::string analyticsReportName(const std::string& host, int pid, long long start);

// The report written in `directory` by the process `pid` of this host that
// was created at `start` (as in the name); empty when there is none. A report
// of an earlier process that had the same pid is never taken for it.
std::string findAnalyticsReport(const std::string& directory, int pid, long long start);

// The value of the named record of a report, as one line of JSON. False when
// the file cannot be read or parsed, or has no such record.
bool readAnalyticsRecord(const std::string& path, const std::string& name, std::string& json);

}  // namespace v1
}  // namespace XoRenderServices
}  // namespace Arbolite3
