// korvex_bench's main: the host's side set up as em-host sets it up (trace
// switch off, thread monitor installed), then Google Benchmark, then the
// loaded module stopped and deleted.
#include "bench/BenchSupport.h"
#include "host/HostControl.h"

#include <benchmark/benchmark.h>

#include <signal.h>

int main(int argc, char** argv) {
  // A child that dies early must not take the benchmark with it.
  ::signal(SIGPIPE, SIG_IGN);
  halvane::SetDebugName("korvex_bench");
  halvane::TraceToStderr();
  halvane::SetTraceSwitch(false);
  halvane::SetTraceLevel(5);
  halvane::InstallThreadMonitor();

  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  korvex_bench::CPluginModule::Shutdown();
  return 0;
}
