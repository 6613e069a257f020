// The driver's command line: its own options, then "--" and kindlet's.
#pragma once

#include <string>
#include <vector>

namespace Farm {

enum class Mode { Local, Slurm };

struct FarmOptions {
  Mode mode = Mode::Local;
  int chunkSize = 5;
  int retries = 2;
  std::string jobDir;
  std::string root;
  int threads = 0;  // 0: chosen by the mode
  int parallel = 0;  // local: 0 is the CPU count
  // Slurm
  int cpusPerTask = 1;
  std::string memory;
  std::string timeLimit;
  std::string partition;
  int maxRunning = 0;  // 0: no cap
  std::vector<std::string> sbatchOptions;
  std::vector<std::string> expectedOutputs;  // --expect-output, "#" for the frame number
  double pollSeconds = 5;

  // kindlet's options without -t and -threads, and what they said.
  std::vector<std::string> kindletOptions;
  std::string pattern;
  std::string frames;
  std::vector<int> frameNumbers;  // what `frames` names, in order
};

extern const char farmUsage[];

// Fills `options`; on a usage error returns false with the reason in `error`.
bool parseFarmOptions(const std::vector<std::string>& arguments, FarmOptions& options, std::string& error);

// CPUs this process may run on.
int availableCpus();

}  // namespace Farm
