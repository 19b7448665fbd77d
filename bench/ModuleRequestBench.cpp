// Figures 1 and 5: ModuleRequest for the installation query (0x3400) on the
// host's thread, as the switch calls it through the module's virtual table,
// with tracing off, with tracing on to a file at level 5, and with the trace
// switch on but every line filtered out by the host's level. The reference is
// the base class's ModuleRequest (status 1, nothing else): the least a
// request to any module costs.
#include "bench/BenchSupport.h"
#include "host/HostControl.h"

#include <benchmark/benchmark.h>

#include <string>
#include <unistd.h>
#include <vector>

namespace kb = korvex_bench;

namespace {

enum class ETrace { kOff, kFileLevel5, kSwitchOnLevel1 };

// Sets the host's trace up for one benchmark and restores "off" afterwards.
class CTraceSetting {
 public:
  CTraceSetting(ETrace mode, const std::string& file) {
    if (mode == ETrace::kFileLevel5) {
      m_Ok = halvane::TraceToFile(file.c_str(), &m_Error);
      halvane::SetTraceLevel(5);
      halvane::SetTraceSwitch(true);
    } else if (mode == ETrace::kSwitchOnLevel1) {
      halvane::SetTraceLevel(1);
      halvane::SetTraceSwitch(true);
    }
  }
  ~CTraceSetting() {
    halvane::SetTraceSwitch(false);
    halvane::SetTraceLevel(5);
    halvane::TraceToStderr();
  }
  bool Ok() const { return m_Ok; }
  const std::string& Error() const { return m_Error; }

 private:
  bool m_Ok = true;
  std::string m_Error;
};

// The answer the query must get: taken, status 0, "DA" 1 (installed).
bool Answered(int result, SipJson& request) {
  return result == 1 && request.Status() == 0 && request.UIntValue() == 1;
}

void RunQuery(benchmark::State& state, ETrace mode) {
  kb::CPluginModule& plugin = kb::CPluginModule::Instance();
  if (!plugin.Ok()) return kb::Fail(state, plugin.Error());
  const std::string trace = plugin.Dir().Path() + "/trace.log";
  CTraceSetting setting(mode, trace);
  if (!setting.Ok()) return kb::Fail(state, setting.Error());

  SipJson request;
  if (!kb::LoadRequest(request, kb::RequestText(kb::kOpcodeQuery), 1)) {
    return kb::Fail(state, "request text does not parse");
  }
  CIExtensionModule& module = plugin.Module();
  // The first call adds "ST" and "DA"; every further one overwrites them in
  // place, as for a switch that reuses its request objects.
  if (!Answered(module.ModuleRequest(request), request)) {
    return kb::Fail(state, "the module did not answer the query with status 0, installed");
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(module.ModuleRequest(request));
  }
  if (!Answered(module.ModuleRequest(request), request)) {
    kb::Fail(state, "the answer changed during the run");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
  ::unlink(trace.c_str());
}

void BM_Query_TraceOff(benchmark::State& state) { RunQuery(state, ETrace::kOff); }
void BM_Query_TraceFile5(benchmark::State& state) { RunQuery(state, ETrace::kFileLevel5); }
void BM_Query_TraceOnLevel1(benchmark::State& state) { RunQuery(state, ETrace::kSwitchOnLevel1); }

// The same query on a fresh message each time (as a switch that builds a
// new request object per request): "ST" and "DA" are added, not replaced.
void BM_Query_FreshMessage(benchmark::State& state) {
  kb::CPluginModule& plugin = kb::CPluginModule::Instance();
  if (!plugin.Ok()) return kb::Fail(state, plugin.Error());
  CIExtensionModule& module = plugin.Module();
  constexpr std::size_t kBatch = 4096;
  std::vector<SipJson> batch(kBatch);
  const std::string text = kb::RequestText(kb::kOpcodeQuery);
  std::size_t next = kBatch;
  for (auto _ : state) {
    if (next == kBatch) {
      state.PauseTiming();
      for (SipJson& message : batch) kb::LoadRequest(message, text, 1);
      next = 0;
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(module.ModuleRequest(batch[next++]));
  }
  if (!Answered(1, batch[0])) kb::Fail(state, "the module did not answer the query");
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

// Reference: a module that answers nothing (the base class's default).
void BM_BaseModuleRequest(benchmark::State& state) {
  CExtensionModule base;
  CIExtensionModule& module = base;
  SipJson request;
  if (!kb::LoadRequest(request, kb::RequestText(kb::kOpcodeQuery), 1)) {
    return kb::Fail(state, "request text does not parse");
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(module.ModuleRequest(request));
  }
  if (request.Status() != 1) kb::Fail(state, "the base did not write status 1");
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

}  // namespace

BENCHMARK(BM_Query_TraceOff)->UseRealTime();
BENCHMARK(BM_BaseModuleRequest)->UseRealTime();
BENCHMARK(BM_Query_FreshMessage)->UseRealTime();
BENCHMARK(BM_Query_TraceFile5)->UseRealTime();
BENCHMARK(BM_Query_TraceOnLevel1)->UseRealTime();
