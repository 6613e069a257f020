#include "SlurmKindlets.h"

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "Launcher.h"

namespace KindletControl {

namespace {

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

}  // namespace

SlurmKindlets::~SlurmKindlets() {
  if (!job.empty() && std::system(("scancel " + job + " >/dev/null 2>&1").c_str()) != 0)
    std::cerr << "kindlet-control: scancel " << job << " failed" << std::endl;
  if (!directory.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
  }
}

bool SlurmKindlets::submit(int count, const std::string& host, unsigned short port,
                           const std::vector<std::string>& options) {
  const char* temporary = std::getenv("TMPDIR");
  std::string pattern = std::string(temporary && *temporary ? temporary : "/tmp") + "/kindlet-view.XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) {
    std::cerr << "kindlet-control: --slurm: cannot make " << pattern << std::endl;
    return false;
  }
  directory = pattern;
  const std::string script = directory + "/task.sh";
  {
    std::ofstream out(script);
    out << "#!/bin/sh\n# One kindlet of a view; its share of the samples is its array index.\nexec "
        << quoted(Launcher::installRoot() + "/bin/kindlet-control") << " render --registry "
        << quoted(host + ":" + std::to_string(port)) << " --";
    for (const std::string& option : options) out << " " << quoted(option);
    out << " -sampleOffset \"$SLURM_ARRAY_TASK_ID\" -sampleStride " << count << "\n";
    if (!out.flush()) {
      std::cerr << "kindlet-control: --slurm: cannot write " << script << std::endl;
      return false;
    }
  }
  const std::string command = "sbatch --parsable --job-name=kindlet-view --array=0-" +
                              std::to_string(count - 1) + " --output=" +
                              quoted(directory + "/task-%a.out") + " " + quoted(script);
  FILE* answer = ::popen(command.c_str(), "r");
  char line[256] = "";
  const bool read = answer != nullptr && std::fgets(line, sizeof line, answer) != nullptr;
  const int status = answer != nullptr ? ::pclose(answer) : -1;
  job = read ? std::string(line).substr(0, std::string(line).find_first_of(";\n")) : "";
  if (status != 0 || job.empty()) {
    std::cerr << "kindlet-control: --slurm: sbatch failed (" << command << ")" << std::endl;
    job.clear();
    return false;
  }
  std::cout << "slurm job " << job << std::endl;
  return true;
}

}  // namespace KindletControl
