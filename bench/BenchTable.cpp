// korvex_bench_table: reads the JSON that korvex_bench wrote
// (--benchmark_out) and prints the one table of bench/run as Markdown: per
// figure the measured value, its reference from the same run, the ratio and
// the target, and whether the target was met.
//
// Usage: korvex_bench_table RESULTS.json
#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct CRow {
  std::string m_Figure;
  std::string m_Measured;
  std::string m_Reference;
  std::string m_Ratio;
  std::string m_Target;
  std::string m_Verdict;
};

class CResults {
 public:
  explicit CResults(const rapidjson::Document& document) : m_Document(document) {}

  // The run named `name` (also "name/iterations:1/real_time" and the like);
  // null when it is missing or ended in an error.
  const rapidjson::Value* Find(const std::string& name) const {
    const rapidjson::Value* run = FirstRun(name);
    if (run == nullptr) return nullptr;
    const bool failed = run->HasMember("error_occurred") && (*run)["error_occurred"].IsBool() &&
                        (*run)["error_occurred"].GetBool();
    return failed ? nullptr : run;
  }

  // A counter (or any number field) of a run; NaN when absent.
  double Number(const std::string& name, const char* field) const {
    const rapidjson::Value* run = Find(name);
    if (run == nullptr || !run->HasMember(field) || !(*run)[field].IsNumber()) return NAN;
    return (*run)[field].GetDouble();
  }

  // Wall ("real_time") or thread CPU ("cpu_time") time per iteration in
  // nanoseconds; NaN when absent.
  double TimeNs(const std::string& name, const char* which = "real_time") const {
    const rapidjson::Value* run = Find(name);
    if (run == nullptr || !run->HasMember(which) || !(*run)[which].IsNumber()) {
      return NAN;
    }
    double value = (*run)[which].GetDouble();
    const std::string unit = run->HasMember("time_unit") && (*run)["time_unit"].IsString()
                                 ? (*run)["time_unit"].GetString()
                                 : "ns";
    if (unit == "us") value *= 1e3;
    if (unit == "ms") value *= 1e6;
    if (unit == "s") value *= 1e9;
    return value;
  }

  // The error message of a failed run, or "".
  std::string Error(const std::string& name) const {
    const rapidjson::Value* run = FirstRun(name);
    if (run == nullptr || !run->HasMember("error_message") || !(*run)["error_message"].IsString()) {
      return "";
    }
    return (*run)["error_message"].GetString();
  }

 private:
  // The first run named `name` or "name/...", failed or not; null when none.
  const rapidjson::Value* FirstRun(const std::string& name) const {
    const rapidjson::Value::ConstMemberIterator list = m_Document.FindMember("benchmarks");
    if (list == m_Document.MemberEnd() || !list->value.IsArray()) return nullptr;
    for (const rapidjson::Value& run : list->value.GetArray()) {
      if (!run.IsObject() || !run.HasMember("name") || !run["name"].IsString()) continue;
      const std::string runName = run["name"].GetString();
      if (runName == name || runName.compare(0, name.size() + 1, name + "/") == 0) return &run;
    }
    return nullptr;
  }

  const rapidjson::Document& m_Document;
};

std::string Format(double value, const char* unit, int decimals = 1) {
  if (std::isnan(value)) return "n/a";
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f %s", decimals, value, unit);
  return text;
}

// 123456.7 -> "123,457"
std::string Grouped(double value, const char* unit) {
  if (std::isnan(value)) return "n/a";
  std::string digits = std::to_string(static_cast<long long>(std::llround(value)));
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) {
    digits.insert(static_cast<std::size_t>(at), ",");
  }
  return digits + " " + unit;
}

std::string Ratio(double measured, double reference) {
  if (std::isnan(measured) || std::isnan(reference) || reference == 0.0) return "n/a";
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f", measured / reference);
  return text;
}

std::string Verdict(double value, bool atMost, double target) {
  if (std::isnan(value)) return "not measured";
  return (atMost ? value <= target : value >= target) ? "met" : "**missed**";
}

// The thread CPU time with the wall time, which a busy machine stretches, in
// brackets.
std::string WithWall(const CResults& r, double cpu, const char* name) {
  return Format(cpu, "ns") + " (wall " + Format(r.TimeNs(name), "ns") + ")";
}

// A row of one benchmark's thread CPU time (what it costs the calling
// thread) against a reference time; the wall time, which a busy machine
// stretches, follows in brackets. A targetNs of 0 sets no target (verdict "-").
CRow CpuTimeRow(const CResults& r, const char* figure, const char* name,
                const std::string& reference, double referenceNs, const char* target,
                double targetNs) {
  const double cpu = r.TimeNs(name, "cpu_time");
  return {figure,
          WithWall(r, cpu, name),
          reference + Format(referenceNs, "ns"),
          Ratio(cpu, referenceNs),
          target,
          targetNs > 0.0 ? Verdict(cpu, true, targetNs) : "-"};
}

// A row of a time in µs against a reference time in µs.
CRow MicrosRow(const char* figure, double measured, const std::string& reference,
               double referenceUs, const char* target = "-", const std::string& verdict = "-") {
  return {figure,
          Format(measured, "µs"),
          reference + Format(referenceUs, "µs"),
          Ratio(measured, referenceUs),
          target,
          verdict};
}

// Figure 1: the cost of a request on the host's thread.
void AddRequestRows(const CResults& r, std::vector<CRow>& rows) {
  // 1. ModuleRequest, installation query, tracing off.
  const double base = r.TimeNs("BM_BaseModuleRequest", "cpu_time");
  rows.push_back(CpuTimeRow(r, "1 ModuleRequest 0x3400, trace off, per request",
                            "BM_Query_TraceOff", "base-class ModuleRequest: ", base, "<= 1 µs",
                            1000.0));
  rows.push_back(CpuTimeRow(r, "1 (same, a fresh request message each time)",
                            "BM_Query_FreshMessage", "base-class ModuleRequest: ", base, "<= 1 µs",
                            1000.0));
}

// Figure 2: the queue hand-over to the worker.
void AddQueueRows(const CResults& r, std::vector<CRow>& rows) {
  // 2. Queue round trip.
  const double rtMedian = r.Number("BM_QueueRoundTrip", "median_us");
  const double rtP99 = r.Number("BM_QueueRoundTrip", "p99_us");
  const double insert = r.Number("BM_QueueRoundTrip", "insert_median_us");
  const double handMedian = r.Number("BM_EventHandOver", "median_us");
  const double handP99 = r.Number("BM_EventHandOver", "p99_us");
  const double copyUs = r.Number("BM_TaskCopy", "copy_median_ns") / 1000.0;
  rows.push_back(MicrosRow("2 Queue round trip, InsertTask to OnTaskExecution, median", rtMedian,
                           "bare event hand-over: ", handMedian, "<= 50 µs",
                           Verdict(rtMedian, true, 50.0)));
  rows.push_back(MicrosRow("2 (same, 99th percentile)", rtP99, "bare event hand-over: ", handP99));
  rows.push_back(
      {"2 deep copy of the request (share of the median round trip)", Format(copyUs, "µs", 2),
       "round trip: " + Format(rtMedian, "µs"),
       std::isnan(copyUs) || std::isnan(rtMedian) ? "n/a" : Format(100.0 * copyUs / rtMedian, "%"),
       "shown", "-"});
  rows.push_back({"2 InsertTask call on the caller's thread, median", Format(insert, "µs", 2),
                  "round trip: " + Format(rtMedian, "µs"), Ratio(insert, rtMedian), "-", "-"});
}

// Figure 3: archive creation against a bare spawn of the same tool.
void AddArchiveRows(const CResults& r, std::vector<CRow>& rows) {
  // 3. Archive creation.
  const double moduleMedian = r.Number("BM_ArchiveCreation", "module_median_us");
  const double bareMedian = r.Number("BM_ArchiveCreation", "bare_median_us");
  const double moduleP99 = r.Number("BM_ArchiveCreation", "module_p99_us");
  const double bareP99 = r.Number("BM_ArchiveCreation", "bare_p99_us");
  const double exitMedian = r.Number("BM_ArchiveCreation", "exit_to_reply_median_us");
  const double exitP99 = r.Number("BM_ArchiveCreation", "exit_to_reply_p99_us");
  const double ratio3 = moduleMedian / bareMedian;
  rows.push_back(MicrosRow("3 Archive creation, ModuleRequest to SendReply, median", moduleMedian,
                           "bare posix_spawn+waitpid: ", bareMedian, "ratio <= 1.5",
                           Verdict(ratio3, true, 1.5)));
  rows.push_back(
      MicrosRow("3 (same, 99th percentile)", moduleP99, "bare posix_spawn+waitpid: ", bareP99));
  rows.push_back(MicrosRow("3 tool exit to SendReply, 99th percentile", exitP99,
                           "median: ", exitMedian, "<= 1 ms", Verdict(exitP99, true, 1000.0)));
}

// Figure 3, step by step.
void AddArchiveStepRows(const CResults& r, std::vector<CRow>& rows) {
  const double stepFind = r.Number("BM_ArchiveSteps", "find_median_us");
  const double stepProcesses = r.Number("BM_ArchiveSteps", "processes");
  const double stepExecute = r.Number("BM_ArchiveSteps", "execute_median_us");
  const double stepBare = r.Number("BM_ArchiveSteps", "bare_median_us");
  const double stepDelete = r.Number("BM_ArchiveSteps", "delete_median_us");
  rows.push_back({"3 step: search for a running Korvex (FindProcess), median",
                  Format(stepFind, "µs") + " over " + Format(stepProcesses, "processes", 0),
                  "bare posix_spawn+waitpid: " + Format(stepBare, "µs"), Ratio(stepFind, stepBare),
                  "-", "-"});
  rows.push_back(MicrosRow("3 step: the tool run through CProcess::ExecuteCmd, median", stepExecute,
                           "bare posix_spawn+waitpid: ", stepBare));
  rows.push_back(MicrosRow("3 step: deletion of the previous archive (stat, unlink), median",
                           stepDelete, "bare posix_spawn+waitpid: ", stepBare));
}

// Figure 3, the supervisor's shape alone (bench/SupervisorBench.cpp): the
// starts ExecuteCmd makes, without its own work, against the bare spawn
// measured beside them; once more with 256 MiB of heap. A shape that could
// not run here reports -1 and shows as n/a.
void AddSupervisorShapeRows(const CResults& r, std::vector<CRow>& rows) {
  const char* const kBench = "BM_SupervisorShapes";
  const auto shape = [&](const std::string& counter) {
    const double value = r.Number(kBench, (counter + "_us").c_str());
    return value < 0.0 ? NAN : value;
  };
  const struct {
    const char* m_Figure;
    const char* m_Counter;
    const char* m_Reference;  // the bare spawn measured beside it
  } kRows[] = {
      {"3 shape: thread, fork, fork + exec (the supervisor's), median", "fork2", "bare"},
      {"3 shape: the same in a new PID namespace, median", "fork2_ns", "bare"},
      {"3 shape: thread, fork, posix_spawn, median", "fork_spawn", "bare"},
      {"3 shape: thread, fork, fork + exec, 256 MiB of heap, median", "fork2_256mib",
       "bare_256mib"},
      {"3 shape: thread, fork, posix_spawn, 256 MiB of heap, median", "fork_spawn_256mib",
       "bare_256mib"},
  };
  for (const auto& row : kRows) {
    rows.push_back(MicrosRow(row.m_Figure, shape(row.m_Counter),
                             "bare posix_spawn+waitpid: ", shape(row.m_Reference)));
  }
}

// Figure 4: em-host serve's throughput.
void AddServeRows(const CResults& r, std::vector<CRow>& rows) {
  // 4. em-host serve throughput.
  const double serve = r.Number("BM_ServeThroughput", "requests_per_s");
  const double cat = r.Number("BM_ServeThroughput", "cat_lines_per_s");
  rows.push_back({"4 em-host serve, installation queries, lines in to lines out",
                  Grouped(serve, "req/s"), "cat through the same pipes: " + Grouped(cat, "lines/s"),
                  Ratio(serve, cat), ">= 100,000 req/s", Verdict(serve, false, 100000.0)});
}

// Figure 5: the cost of tracing.
void AddTraceRows(const CResults& r, std::vector<CRow>& rows) {
  // 5. Tracing (thread CPU time, as figure 1).
  const double queryOff = r.TimeNs("BM_Query_TraceOff", "cpu_time");
  rows.push_back(CpuTimeRow(r, "5 ModuleRequest 0x3400, tracing on to a file at level 5",
                            "BM_Query_TraceFile5", "trace off: ", queryOff, "none set", 0.0));
  rows.push_back(CpuTimeRow(r, "5 (trace switch on, host level 1: every line filtered)",
                            "BM_Query_TraceOnLevel1", "trace off: ", queryOff, "none set", 0.0));
}

// Figure 6: memory per queued task and em-host's peak.
void AddMemoryRows(const CResults& r, std::vector<CRow>& rows) {
  // 6. Memory.
  const double taskBytes = r.Number("BM_QueuedTaskBytes", "bytes_per_task");
  const double taskBlocks = r.Number("BM_QueuedTaskBytes", "blocks_per_task");
  const double messageBytes = r.Number("BM_QueuedTaskBytes", "message_bytes");
  const double messageBlocks = r.Number("BM_QueuedTaskBytes", "message_blocks");
  rows.push_back({"6 Heap per queued task (usable bytes, blocks)",
                  Format(taskBytes, "B", 0) + ", " + Format(taskBlocks, "blocks", 0),
                  "the request message itself: " + Format(messageBytes, "B", 0) + ", " +
                      Format(messageBlocks, "blocks", 0),
                  Ratio(taskBytes, messageBytes), "none set", "-"});
  const double idleHwm = r.Number("BM_ServePeakRss", "idle_hwm_kb");
  const double queuedHwm = r.Number("BM_ServePeakRss", "queued_hwm_kb");
  rows.push_back({"6 em-host serve peak RSS (VmHWM), 19 tasks queued", Format(queuedHwm, "KiB", 0),
                  "same session idle: " + Format(idleHwm, "KiB", 0), Ratio(queuedHwm, idleHwm),
                  "none set", "-"});
}

// Figure 7: the verified transfer against cp.
void AddTransferRows(const CResults& r, std::vector<CRow>& rows) {
  // 7. Verified transfer against cp + sync and cp + sha256sum.
  for (const char* size : {"64", "512", "4096"}) {
    const std::string name = std::string("BM_Transfer/") + size;
    const double ours = r.Number(name, "ours_s");
    const double cpSync = r.Number(name, "cp_sync_s");
    const double cpSha = r.Number(name, "cp_sha_s");
    const std::string label = std::string(size) + " MiB";
    rows.push_back({"7 verified transfer of " + label + " (wall; MB/s; CPU)",
                    Format(ours, "s", 2) + "; " + Format(r.Number(name, "ours_mb_s"), "MB/s", 0) +
                        "; CPU " + Format(r.Number(name, "ours_cpu_s"), "s", 2),
                    "cp + sync: " + Format(cpSync, "s", 2) + "; " +
                        Format(r.Number(name, "cp_sync_mb_s"), "MB/s", 0) + "; CPU " +
                        Format(r.Number(name, "cp_sync_cpu_s"), "s", 2),
                    Ratio(ours, cpSync), "ratio <= 1.5", Verdict(ours / cpSync, true, 1.5)});
    rows.push_back({"7 (same, against cp + sha256sum of source and copy)", Format(ours, "s", 2),
                    "cp + sha256sum: " + Format(cpSha, "s", 2) + "; CPU " +
                        Format(r.Number(name, "cp_sha_cpu_s"), "s", 2),
                    Ratio(ours, cpSha), "ratio <= 1", Verdict(ours / cpSha, true, 1.0)});
  }
}

// Figure 8: FindProcess among many processes.
void AddFindProcessRows(const CResults& r, std::vector<CRow>& rows) {
  // 8. FindProcess among many processes.
  for (const char* extra : {"1000", "10000"}) {
    const std::string name = std::string("BM_FindProcessCrowd/") + extra;
    const double find = r.Number(name, "find_median_us");
    const double pgrep = r.Number(name, "pgrep_median_us");
    rows.push_back({std::string("8 FindProcess with ") + extra + " extra processes, median",
                    Format(find, "µs", 0), "pgrep -x: " + Format(pgrep, "µs", 0),
                    Ratio(find, pgrep), "-", "-"});
  }
}

// Figure 9: serve's peak over a long session.
void AddLongSessionRows(const CResults& r, std::vector<CRow>& rows) {
  // 9. serve's peak RSS over a long session.
  const double rssSmall = r.Number("BM_ServeRssLines/10000", "hwm_kb");
  const double rssLarge = r.Number("BM_ServeRssLines/1000000", "hwm_kb");
  rows.push_back({"9 em-host serve peak RSS (VmHWM) after 10^6 queries", Format(rssLarge, "KiB", 0),
                  "after 10^4 queries: " + Format(rssSmall, "KiB", 0), Ratio(rssLarge, rssSmall),
                  "ratio <= 1.5", Verdict(rssLarge / rssSmall, true, 1.5)});
}

void PrintTable(const std::vector<CRow>& rows) {
  std::printf("| Figure | Measured | Reference (same run) | Ratio | Target | Result |\n");
  std::printf("|---|---|---|---|---|---|\n");
  for (const CRow& row : rows) {
    std::printf("| %s | %s | %s | %s | %s | %s |\n", row.m_Figure.c_str(), row.m_Measured.c_str(),
                row.m_Reference.c_str(), row.m_Ratio.c_str(), row.m_Target.c_str(),
                row.m_Verdict.c_str());
  }
}

// Names every benchmark that failed; how many did.
int ReportFailures(const CResults& r) {
  int failed = 0;
  for (const char* name :
       {"BM_Query_TraceOff", "BM_BaseModuleRequest", "BM_Query_FreshMessage", "BM_Query_TraceFile5",
        "BM_Query_TraceOnLevel1", "BM_QueueRoundTrip", "BM_EventHandOver", "BM_TaskCopy",
        "BM_QueuedTaskBytes", "BM_ArchiveSteps", "BM_ArchiveCreation", "BM_ServeThroughput",
        "BM_ServePeakRss", "BM_Transfer", "BM_FindProcessCrowd", "BM_ServeRssLines"}) {
    const std::string error = r.Error(name);
    if (!error.empty()) {
      std::printf("\n%s failed: %s", name, error.c_str());
      ++failed;
    }
  }
  if (failed != 0) std::printf("\n");
  return failed;
}

// Parses the file at path into document; false (with a message) when it
// cannot be read or is not Google Benchmark JSON.
bool LoadResults(const char* path, rapidjson::Document& document) {
  std::ifstream in(path);
  if (!in) {
    std::fprintf(stderr, "korvex_bench_table: cannot read %s\n", path);
    return false;
  }
  rapidjson::IStreamWrapper stream(in);
  document.ParseStream(stream);
  if (document.HasParseError() || !document.IsObject()) {
    std::fprintf(stderr, "korvex_bench_table: %s is not Google Benchmark JSON\n", path);
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: korvex_bench_table RESULTS.json\n");
    return 2;
  }
  rapidjson::Document document;
  if (!LoadResults(argv[1], document)) return 2;
  const CResults r(document);
  std::vector<CRow> rows;
  for (const auto add : {AddRequestRows, AddQueueRows, AddArchiveRows, AddArchiveStepRows,
                         AddSupervisorShapeRows, AddServeRows, AddTraceRows, AddMemoryRows,
                         AddTransferRows, AddFindProcessRows, AddLongSessionRows}) {
    add(r, rows);
  }
  PrintTable(rows);
  return ReportFailures(r) != 0 ? 1 : 0;
}
