// The two ways of running a job's chunks. Each runs `kindlet-farm task` once
// per attempt at a chunk, feeds the outcomes to the JobState and returns 0,
// or the signal that stopped it after it cancelled what was running.
#pragma once

#include <string>

#include "FarmOptions.h"
#include "JobState.h"
#include "SignalWatch.h"

namespace Farm {

// Chunks as children of this process, at most options.parallel at once.
int runLocal(const FarmOptions& options, const std::string& farmProgram, JobState& state,
             SignalWatch& signals);

// Chunks as tasks of sbatch array jobs, one job per round of attempts.
int runSlurm(const FarmOptions& options, const std::string& farmProgram, JobState& state,
             SignalWatch& signals);

}  // namespace Farm
