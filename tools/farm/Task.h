// `kindlet-farm task <jobdir> <chunk> <attempt>`: renders one attempt at a
// chunk with an ordinary batch render through kindlet-control, keeps its
// output in the attempt's log and reports through the attempt's status file.
#pragma once

#include <string>

namespace Farm {

// Exit status 0 when kindlet rendered every frame, 1 when it did not, 2 when
// the attempt's frame list or log is unusable. Throws std::runtime_error when
// the job or status file can't be read or written.
int runTask(const std::string& jobDir, int chunk, int attempt);

// The frame index (1-based) and count of one of kindlet's progress lines
// "... Finished rendering scene from Op tree i of N.", or false.
bool parseProgressLine(const std::string& line, int& index, int& count);

}  // namespace Farm
