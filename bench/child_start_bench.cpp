// Time from constructing a ChildProcess of /bin/true until its start is
// proved, against posix_spawn of the same image in the same run. Reaping is
// outside both timings. The argument is the MiB of written memory the
// starting process holds, as a launcher or a test process may: a start that
// copies the parent's address space pays for every page of it.
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <vector>

#include <benchmark/benchmark.h>

#include "client/platform/process.hpp"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* image = "/bin/true";

double seconds_since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

double child_process_start() {
  const auto begin = Clock::now();
  zorvi::ChildProcess child(image, {}, "/", {}, zorvi::ChildStreams::Separated, zorvi::ChildEnvironment::Clean);
  const double elapsed = seconds_since(begin);
  child.wait();
  return elapsed;
}

// glibc's posix_spawn returns once the child has exec'd or failed to, so
// it also knows that the image started.
double posix_spawn_start(benchmark::State& state) {
  char program[] = "/bin/true";
  char* argv[] = {program, nullptr};
  pid_t pid = 0;
  const auto begin = Clock::now();
  const int result = ::posix_spawn(&pid, image, nullptr, nullptr, argv, environ);
  const double elapsed = seconds_since(begin);
  if (result != 0) {
    state.SkipWithError("posix_spawn failed");
    return elapsed;
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return elapsed;
}

void BM_ChildStartAgainstPosixSpawn(benchmark::State& state) {
  std::vector<char> held(static_cast<std::size_t>(state.range(0)) << 20);
  for (std::size_t offset = 0; offset < held.size(); offset += 4096) held[offset] = 1;
  double child_total = 0;
  double spawn_total = 0;
  for (auto _ : state) {
    const double child = child_process_start();
    spawn_total += posix_spawn_start(state);
    child_total += child;
    state.SetIterationTime(child);
  }
  const auto starts = static_cast<double>(state.iterations());
  state.counters["child_start_us"] = child_total / starts * 1e6;
  state.counters["posix_spawn_us"] = spawn_total / starts * 1e6;
  state.counters["ratio_to_posix_spawn"] = spawn_total > 0 ? child_total / spawn_total : 0;
}

BENCHMARK(BM_ChildStartAgainstPosixSpawn)->Arg(0)->Arg(512)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
