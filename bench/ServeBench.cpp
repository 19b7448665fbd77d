// Figure 4: em-host serve's throughput for installation queries, lines in to
// lines out, through pipes; the reference is cat passing the same lines
// through the same kind of pipes (the most any lines-in, lines-out program
// can do here).
// Figure 6 (second half): em-host serve's peak resident size (VmHWM) with 19
// creation tasks queued behind a tool that blocks, against the same session
// idle.
#include "bench/BenchStamp.h"
#include "bench/BenchSupport.h"

#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <poll.h>
#include <signal.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kb = korvex_bench;

namespace {

std::string QueryLine(long id) {
  return "{\"id\":" + std::to_string(id) + ",\"request\":" + kb::RequestText(kb::kOpcodeQuery) +
         "}\n";
}

std::string CreateLine(long id) {
  return "{\"id\":" + std::to_string(id) + ",\"request\":" + kb::RequestText(kb::kOpcodeCreate) +
         "}\n";
}

long Count(const std::string& text, const std::string& what) {
  long count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
    ++count;
  }
  return count;
}

// Pushes `input` (lines) through child and reads as many lines back; the
// wall time from the first byte written to the last line read.
bool Pump(korvex_test::CChildProcess& child, const std::string& input, long lines,
          std::string& output, double& seconds) {
  bool written = true;
  const std::int64_t t0 = kb::NowNs();
  std::thread writer([&] { written = child.WriteOnly(input); });
  const bool read = child.ReadLines(lines, 300000, &output);
  const std::int64_t t1 = kb::NowNs();
  writer.join();
  seconds = static_cast<double>(t1 - t0) / 1e9;
  return written && read;
}

// Reads exactly size bytes from fd (the tool writes its stamp and its pid
// one after the other), waiting up to timeoutMs in all.
bool ReadRecord(int fd, void* data, std::size_t size, int timeoutMs) {
  char* bytes = static_cast<char*>(data);
  const std::int64_t deadline = kb::NowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000LL;
  while (size > 0) {
    const std::int64_t left = deadline - kb::NowNs();
    if (left <= 0) return false;
    pollfd readable{fd, POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(left / 1000000LL) + 1) != 1) continue;
    const ssize_t got = ::read(fd, bytes, size);
    if (got <= 0) return false;
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

// Whether pid still runs, given a couple of seconds to go: a killed tool may
// stay a zombie for a moment after its host has exited.
bool StillRunning(pid_t pid) {
  for (int i = 0; i < 200; ++i) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    const std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t paren = stat.rfind(')');
    if (stat.empty() || paren == std::string::npos || paren + 2 >= stat.size() ||
        stat[paren + 2] == 'Z' || stat[paren + 2] == 'X') {
      return false;
    }
    kb::SleepNs(10000000);
  }
  return true;
}

std::vector<std::string> EmHostServe(const korvex_test::CTempDir& dir) {
  return {kb::EmHostPath(), "--tool-root", dir.Path(), "--bmc-dir", dir.Path() + "/bmc", "serve"};
}

void BM_ServeThroughput(benchmark::State& state) {
  const long lines = kb::EnvNumber("KORVEX_BENCH_SERVE_LINES", 200000);
  korvex_test::CTempDir dir("korvex-bench-serve");
  std::string error;
  if (!kb::InstallTool(dir.Path(), &error)) return kb::Fail(state, error);
  std::string input;
  input.reserve(static_cast<std::size_t>(lines) * 110);
  for (long i = 1; i <= lines; ++i) input += QueryLine(i);

  for (auto _ : state) {
    // em-host: started, warmed up with one query, then the stream.
    const auto host = kb::StartChild(EmHostServe(dir), {}, dir.Path() + "/stderr.log", &error);
    if (!host) return kb::Fail(state, "cannot start em-host: " + error);
    if (!host->Write(QueryLine(0)) || !host->ReadLines(1, 30000)) {
      return kb::Fail(state, "em-host serve did not answer");
    }
    std::string output;
    output.reserve(input.size() * 2);
    double seconds = 0;
    if (!Pump(*host, input, lines, output, seconds)) return kb::Fail(state, "em-host fell silent");
    const int exit = host->Finish(30).m_Exit;
    const long acks = Count(output, "\"event\":\"ack\",\"result\":1,");
    const long answered = Count(output, "\"ST\":0,\"DA\":1}");
    if (acks != lines || answered != lines || exit != 0) {
      return kb::Fail(state, "em-host answered " + std::to_string(acks) + " of " +
                                 std::to_string(lines) + " queries as installed (" +
                                 std::to_string(answered) + "), exit " + std::to_string(exit));
    }

    // cat: the same bytes through the same kind of pipes.
    const auto cat = kb::StartChild({"/bin/cat"}, {}, "", &error);
    if (!cat) return kb::Fail(state, "cannot start cat: " + error);
    std::string echoed;
    echoed.reserve(input.size());
    double catSeconds = 0;
    if (!Pump(*cat, input, lines, echoed, catSeconds)) return kb::Fail(state, "cat fell silent");
    cat->Finish(10);

    state.counters["requests_per_s"] = static_cast<double>(lines) / seconds;
    state.counters["cat_lines_per_s"] = static_cast<double>(lines) / catSeconds;
    state.counters["lines"] = static_cast<double>(lines);
    state.counters["output_bytes_per_line"] =
        static_cast<double>(output.size()) / static_cast<double>(lines);
  }
}

struct CRssFigures {
  long m_IdleHwm = -1;
  long m_IdleRss = -1;
  long m_QueuedHwm = -1;
  long m_QueuedRss = -1;
};

// Idle (started, one query answered), then one creation that blocks in the
// tool and 19 that queue behind it; the tool's pid from its record. "" or
// what went wrong.
std::string QueueBehindABlockedTool(korvex_test::CChildProcess& host, int stampFd,
                                    CRssFigures& figures, pid_t& tool) {
  std::string failed;
  if (!host.Write(QueryLine(0)) || !host.ReadLines(1, 30000)) failed = "no answer to the query";
  figures.m_IdleHwm = kb::StatusKb(host.Pid(), "VmHWM");
  figures.m_IdleRss = kb::StatusKb(host.Pid(), "VmRSS");
  std::int64_t record[2] = {0, 0};
  if (failed.empty() && (!host.Write(CreateLine(1)) || !host.ReadLines(1, 30000))) {
    failed = "no ack for the first creation";
  }
  if (failed.empty() && !ReadRecord(stampFd, record, sizeof(record), 10000)) {
    failed = "the tool did not report that it runs";
  }
  tool = static_cast<pid_t>(record[1]);
  std::string queued;
  for (long id = 2; id <= 20; ++id) queued += CreateLine(id);
  if (failed.empty() && (!host.Write(queued) || !host.ReadLines(19, 30000))) {
    failed = "no acks for the 19 queued creations";
  }
  figures.m_QueuedHwm = kb::StatusKb(host.Pid(), "VmHWM");
  figures.m_QueuedRss = kb::StatusKb(host.Pid(), "VmRSS");
  return failed;
}

// quit stops the module: the worker is given up after its wait, the tool is
// terminated. "" or what the host left behind.
std::string EndSession(korvex_test::CChildProcess& host, pid_t tool) {
  host.Write("{\"id\":99,\"control\":\"quit\"}\n");
  host.Finish(60);
  if (tool <= 1 || !StillRunning(tool)) return "";
  ::kill(tool, SIGKILL);  // the host left it behind
  return "em-host left the tool running";
}

// Every creation was queued and none met a full queue.
std::string CheckQueueTrace(const std::string& trace) {
  std::ifstream in(trace, std::ios::binary);
  const std::string log((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const long inserted = Count(log, "Task with priority 0 inserted into task queue!");
  const long full = Count(log, "is full");
  if (inserted == 20 && full == 0) return "";
  return "expected 20 insertions and no full queue, saw " + std::to_string(inserted) + " and " +
         std::to_string(full);
}

void BM_ServePeakRss(benchmark::State& state) {
  korvex_test::CTempDir dir("korvex-bench-rss");
  std::string error;
  if (!kb::InstallTool(dir.Path(), &error)) return kb::Fail(state, error);
  const std::string trace = dir.Path() + "/trace.log";
  std::vector<std::string> argv = EmHostServe(dir);
  argv.insert(argv.end() - 1, {"--trace", trace, "--trace-level", "5"});
  const korvex_test::CTempDir stampDir("korvex-bench-rss-stamps");
  const std::string fifo = stampDir / "stamps";
  const korvex::CFd stamps = kb::MakeStampFifo(fifo, &error);
  if (!stamps) return kb::Fail(state, error);
  for (auto _ : state) {
    const auto host = kb::StartChild(
        argv, {std::string(kb::kStampPathVariable) + "=" + fifo, "KORVEX_BENCH_TOOL_MODE=block"},
        dir.Path() + "/stderr.log", &error);
    if (!host) return kb::Fail(state, "cannot start em-host: " + error);
    CRssFigures figures;
    pid_t tool = 0;
    std::string failed = QueueBehindABlockedTool(*host, stamps.Get(), figures, tool);
    const std::string left = EndSession(*host, tool);
    if (failed.empty()) failed = left.empty() ? CheckQueueTrace(trace) : left;
    if (!failed.empty()) return kb::Fail(state, failed);
    state.counters["idle_hwm_kb"] = static_cast<double>(figures.m_IdleHwm);
    state.counters["idle_rss_kb"] = static_cast<double>(figures.m_IdleRss);
    state.counters["queued_hwm_kb"] = static_cast<double>(figures.m_QueuedHwm);
    state.counters["queued_rss_kb"] = static_cast<double>(figures.m_QueuedRss);
  }
}

}  // namespace

BENCHMARK(BM_ServeThroughput)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ServePeakRss)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
