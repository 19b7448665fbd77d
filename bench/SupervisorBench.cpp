// Figure 3 taken apart: what the shape of CProcess::ExecuteCmd's start costs
// by itself. ExecuteCmd runs the tool under a supervisor: a watcher thread
// forks the supervisor (after unsharing a PID namespace where it may), and
// the supervisor forks and execs the tool. The shapes below do only that,
// with none of ExecuteCmd's pipes, log or bookkeeping, against the bare
// posix_spawn + waitpid of the same tool, interleaved so that all see the
// same machine:
//   fork2      thread, fork, fork + exec (the supervisor's shape)
//   fork2_ns   the same with the PID namespace (-1 where it cannot be had)
//   fork_spawn thread, fork, posix_spawn (a supervisor starting its tool
//              without copying its page tables)
// each once as the benchmark stands and once with 256 MiB more heap
// touched: fork copies the page tables of everything mapped, posix_spawn
// does not.
#include "bench/BenchSupport.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace kb = korvex_bench;

namespace {

enum class Shape { kBare, kFork2, kFork2Namespace, kForkSpawn };

// The supervisor's part: start the tool, wait for it, _exit with its result.
[[noreturn]] void Supervise(const char* tool, bool spawn) {
  pid_t pid = -1;
  if (spawn) {
    pid = kb::SpawnTool(tool);
  } else if ((pid = ::fork()) == 0) {
    char* const argv[] = {const_cast<char*>(tool), nullptr};
    ::execve(tool, argv, environ);
    ::_exit(127);
  }
  ::_exit(kb::ReapExitedZero(pid) ? 0 : 1);
}

// One start and end of the tool in the given shape; false when it failed.
bool RunShape(Shape shape, const char* tool) {
  if (shape == Shape::kBare) return kb::ReapExitedZero(kb::SpawnTool(tool));
  bool ok = false;
  std::thread watcher([&] {
    if (shape == Shape::kFork2Namespace && ::unshare(CLONE_NEWPID) != 0) return;
    const pid_t supervisor = ::fork();
    if (supervisor == 0) Supervise(tool, shape == Shape::kForkSpawn);
    ok = kb::ReapExitedZero(supervisor);
  });
  watcher.join();
  return ok;
}

constexpr Shape kShapes[] = {Shape::kBare, Shape::kFork2, Shape::kFork2Namespace,
                             Shape::kForkSpawn};
constexpr const char* kNames[] = {"bare", "fork2", "fork2_ns", "fork_spawn"};

// Interleaved samples of every shape; the median of each becomes a counter
// named <shape><suffix>_us (-1: the shape could not run here).
std::string MeasureShapes(benchmark::State& state, kb::CPluginModule& plugin, long samples,
                          const char* suffix) {
  const std::string tool = plugin.ToolInRoot();
  std::vector<std::int64_t> taken[4];
  bool failed[4] = {false, false, false, false};
  for (long i = 0; i < samples; ++i) {
    for (int s = 0; s < 4; ++s) {
      if (failed[s]) continue;
      const std::int64_t t0 = kb::NowNs();
      failed[s] = !RunShape(kShapes[s], tool.c_str());
      taken[s].push_back(kb::NowNs() - t0);
      plugin.DrainStamps();
    }
  }
  if (failed[0]) return "the bare tool run failed";
  for (int s = 0; s < 4; ++s) {
    state.counters[std::string(kNames[s]) + suffix + "_us"] =
        failed[s] ? -1.0 : kb::Percentile(taken[s], 50) / 1000.0;
  }
  return "";
}

void BM_SupervisorShapes(benchmark::State& state) {
  kb::CPluginModule& plugin = kb::CPluginModule::Instance();
  if (!plugin.Ok()) return kb::Fail(state, plugin.Error());
  const long samples = kb::EnvNumber("KORVEX_BENCH_SPAWNS", 300) / 2;
  for (auto _ : state) {
    std::string failed = MeasureShapes(state, plugin, samples, "");
    if (!failed.empty()) return kb::Fail(state, failed);
    std::vector<char> heap(256u << 20);
    std::memset(heap.data(), 1, heap.size());
    benchmark::DoNotOptimize(heap.data());
    failed = MeasureShapes(state, plugin, samples, "_256mib");
    if (!failed.empty()) return kb::Fail(state, failed);
  }
}

}  // namespace

BENCHMARK(BM_SupervisorShapes)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
