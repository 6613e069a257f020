// The price of Subprocess's start contract (two pipes, the error-pipe read,
// the prepared environment) over a plain posix_spawn, for `true` run to its
// end. With closeOtherFds the child also closes up to the descriptor limit.
#include <spawn.h>
#include <sys/wait.h>

#include <benchmark/benchmark.h>

#include "base/Subprocess.h"

extern char** environ;

namespace {

void startAndWait(benchmark::State& state, bool closeOtherFds) {
  Arbolite3::Base::Subprocess::Options options;
  options.arguments = {"/bin/true"};
  options.closeOtherFds = closeOtherFds;
  for (auto _ : state) {
    Arbolite3::Base::Subprocess child = Arbolite3::Base::Subprocess::start(options);
    child.waitExit();
  }
}

void BM_Subprocess(benchmark::State& state) { startAndWait(state, false); }
void BM_SubprocessClosingOtherFds(benchmark::State& state) { startAndWait(state, true); }

void BM_PosixSpawnBaseline(benchmark::State& state) {
  char program[] = "/bin/true";
  char* argv[] = {program, nullptr};
  for (auto _ : state) {
    pid_t pid = 0;
    posix_spawn(&pid, program, nullptr, nullptr, argv, environ);
    waitpid(pid, nullptr, 0);
  }
}

BENCHMARK(BM_PosixSpawnBaseline)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Subprocess)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_SubprocessClosingOtherFds)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
