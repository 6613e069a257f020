#include "FarmOptions.h"

#include "StrictFrameList.h"

#include <sched.h>

#include <algorithm>
#include <cstdlib>

namespace Farm {

const char farmUsage[] =
    "usage: kindlet-farm [options] -- <kindlet options with -arbolite3OpTree PATTERN -t FRAMES>\n"
    "  --mode local|slurm    where chunks run (default local: this machine)\n"
    "  --chunk-size N        frames per kindlet (default 5)\n"
    "  --retries N           further attempts at a chunk that failed (default 2)\n"
    "  --job-dir DIR         logs, status and reports (default ./kindlet-farm-<time>-<pid>)\n"
    "  --root DIR            install root whose kindlet-control runs the chunks\n"
    "                        (default: the root this program is installed in)\n"
    "  --threads N           -threads of each kindlet (default: local CPUs / parallel,\n"
    "                        slurm --cpus-per-task)\n"
    "  --expect-output PATH  a file each frame writes, # runs for the frame number; a\n"
    "                        frame counts only when it is new and whole; may be repeated\n"
    "local mode:\n"
    "  --parallel N          chunks at once (default: the CPU count)\n"
    "slurm mode (one sbatch --array job, failed chunks resubmitted):\n"
    "  --cpus-per-task N     (default 1)\n"
    "  --mem SIZE            memory per task, as sbatch takes it (e.g. 4G)\n"
    "  --time LIMIT          time limit per task (e.g. 1:00:00)\n"
    "  --partition NAME\n"
    "  --max-running N       array tasks running at once (default: no cap)\n"
    "  --sbatch-option ARG   passed to sbatch as it is; may be repeated\n"
    "  --poll SECONDS        how often the queue is asked (default 5)\n"
    "Exit status: 0 when every frame rendered, 1 when one did not, 2 for a usage\n"
    "error, 128 + N when stopped by signal N (its chunks are cancelled first).\n"
    "Also: kindlet-farm task JOBDIR CHUNK ATTEMPT (run by the driver or by Slurm).\n";

namespace {

bool parsePositive(const std::string& text, int minimum, int& value) {
  char* end = nullptr;
  const long parsed = strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || parsed < minimum || parsed > 1000000) return false;
  value = static_cast<int>(parsed);
  return true;
}

}  // namespace

int availableCpus() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0) return CPU_COUNT(&set);
  return 1;
}

bool parseFarmOptions(const std::vector<std::string>& arguments, FarmOptions& options, std::string& error) {
  size_t i = 0;
  for (; i < arguments.size() && arguments[i] != "--"; ++i) {
    const std::string& name = arguments[i];
    if (i + 1 >= arguments.size()) {
      error = "option " + name + " needs a value";
      return false;
    }
    const std::string value = arguments[++i];
    bool good = true;
    if (name == "--mode") {
      good = value == "local" || value == "slurm";
      options.mode = value == "slurm" ? Mode::Slurm : Mode::Local;
    } else if (name == "--chunk-size") {
      good = parsePositive(value, 1, options.chunkSize);
    } else if (name == "--retries") {
      good = parsePositive(value, 0, options.retries);
    } else if (name == "--job-dir") {
      options.jobDir = value;
    } else if (name == "--root") {
      options.root = value;
    } else if (name == "--threads") {
      good = parsePositive(value, 1, options.threads);
    } else if (name == "--parallel") {
      good = parsePositive(value, 1, options.parallel);
    } else if (name == "--cpus-per-task") {
      good = parsePositive(value, 1, options.cpusPerTask);
    } else if (name == "--mem") {
      options.memory = value;
    } else if (name == "--time") {
      options.timeLimit = value;
    } else if (name == "--partition") {
      options.partition = value;
    } else if (name == "--max-running") {
      good = parsePositive(value, 1, options.maxRunning);
    } else if (name == "--expect-output") {
      good = value.find('#') != std::string::npos;
      options.expectedOutputs.push_back(value);
    } else if (name == "--sbatch-option") {
      options.sbatchOptions.push_back(value);
    } else if (name == "--poll") {
      options.pollSeconds = strtod(value.c_str(), nullptr);
      good = options.pollSeconds > 0;
    } else {
      error = "unknown option " + name;
      return false;
    }
    if (!good) {
      error = "bad value for " + name + ": " + value;
      return false;
    }
  }
  if (i >= arguments.size()) {
    error = "kindlet's options must follow --";
    return false;
  }

  // kindlet's options come in pairs of a name and its value.
  bool haveFrames = false;
  for (++i; i < arguments.size(); i += 2) {
    const std::string& name = arguments[i];
    const bool hasValue = i + 1 < arguments.size();
    const std::string value = hasValue ? arguments[i + 1] : "";
    if (name == "-t") {
      options.frames = value;
      haveFrames = hasValue;
      continue;
    }
    if (name == "-threads") continue;  // each chunk gets its own share of the machine
    if (name == "-arbolite3OpTree") options.pattern = value;
    options.kindletOptions.push_back(name);
    if (hasValue) options.kindletOptions.push_back(value);
  }
  if (options.pattern.find('*') == std::string::npos) {
    error = "kindlet's -arbolite3OpTree must be a pattern with * for the frame number";
    return false;
  }
  if (!haveFrames) {
    error = "kindlet's options need a frame list -t";
    return false;
  }
  // kindlet passes over what it cannot read; the farm refuses it, so that no
  // frame the user meant is silently left out.
  if (!parseStrictFrameList(options.frames, options.frameNumbers, error)) return false;
  if (options.parallel == 0) options.parallel = availableCpus();
  if (options.threads == 0) {
    options.threads = options.mode == Mode::Slurm ? options.cpusPerTask
                                                  : std::max(1, availableCpus() / options.parallel);
  }
  return true;
}

}  // namespace Farm
