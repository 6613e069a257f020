// kindlet-control --kindlets N --slurm: the N kindlets of one view as the
// tasks of one Slurm array job, each registering with this program's
// registry with its own share of the samples.
#pragma once

#include <string>
#include <vector>

namespace KindletControl {

class SlurmKindlets {
 public:
  SlurmKindlets() = default;
  SlurmKindlets(const SlurmKindlets&) = delete;
  SlurmKindlets& operator=(const SlurmKindlets&) = delete;
  // Cancels the job (what is left of it) and removes the batch script.
  ~SlurmKindlets();

  // Submits task k = 0..count-1 as `<root>/bin/kindlet-control render
  // --registry host:port -- <options> -sampleOffset k -sampleStride count`.
  // Prints "slurm job <id>"; false after a line on standard error.
  bool submit(int count, const std::string& host, unsigned short port,
              const std::vector<std::string>& options);

 private:
  std::string directory;  // the batch script and the tasks' output
  std::string job;
};

}  // namespace KindletControl
