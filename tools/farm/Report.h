// The end of a farm run: a table with one row per frame and the job's cost,
// summed from the analytics reports that the chunks' kindlets wrote.
#pragma once

#include <ostream>
#include <string>

#include "JobState.h"

namespace Farm {

struct JobCost {
  int reports = 0;
  double wallSeconds = 0;
  double cpuSeconds = 0;
  double peakResidentBytes = 0;  // the largest of any one process
  double bytesRead = 0;
  double bytesWritten = 0;
};

// Reads every report under <jobDir>/chunk-*/attempt-*/analytics.
JobCost collectJobCost(const std::string& jobDir);

void printFrameTable(std::ostream& out, const JobState& state);
void printSummary(std::ostream& out, const JobState& state, const JobCost& cost);

}  // namespace Farm
