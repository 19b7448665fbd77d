// Figure 7: the verified transfer of the stand-in BMC (a 0xF052 request
// through em-host's switch, from AsyncRequest to its answer: read, digest,
// write, read back, fsync, checksum file, renames) for archives of 64 MiB,
// 512 MiB and 4 GiB, against cp + sync of the same file and against cp +
// sha256sum of source and copy, run alternately in the same scratch
// directory, the cp + sync reference before ours in every other round. Wall
// time, MB/s and CPU time (user + system, all threads); medians of 5 rounds
// (64 MiB) or 3 (512 MiB, 4 GiB).
// Figure 8: FindProcess with 1,000 and 10,000 extra processes against
// pgrep -x of the same name.
// Figure 9: em-host serve's peak resident size after 10^4 and 10^6 queries.
#include "bench/BenchSupport.h"
#include "host/emhost/bmc/HtiStandIn.h"
#include "host/emhost/switch/HostSwitch.h"
#include "message/SipJson.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace kb = korvex_bench;

namespace {

double CpuSeconds(const rusage& usage) {
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs argv to its end; wall and CPU seconds of the child (and its children).
bool RunTimed(const std::vector<std::string>& argv, double& wall, double& cpu) {
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  const std::int64_t t0 = kb::NowNs();
  pid_t pid = 0;
  if (::posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), environ) != 0) return false;
  int status = 0;
  rusage usage{};
  if (::wait4(pid, &status, 0, &usage) != pid) return false;
  wall = static_cast<double>(kb::NowNs() - t0) / 1e9;
  cpu = CpuSeconds(usage);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A file of size bytes of pseudo-random content (nothing a file system could
// make cheaper), written once and synced.
bool MakeSource(const std::string& path, unsigned long long size) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::vector<unsigned long long> block((1u << 20) / sizeof(unsigned long long));
  unsigned long long state = 0x9E3779B97F4A7C15ull;
  bool ok = true;
  for (unsigned long long done = 0; ok && done < size; done += 1u << 20) {
    for (unsigned long long& word : block) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      word = state;
    }
    ok = ::write(fd, block.data(), 1u << 20) == (1 << 20);
  }
  ok = ok && ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

// Removes path and syncs its directory, so that freeing the blocks (and the
// discards this machine's file system issues for them) is done before the
// next run starts.
void RemoveSettled(const std::string& dir, const std::string& name) {
  ::unlink((dir + "/" + name).c_str());
  ::unlink((dir + "/" + name + ".sha256").c_str());
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    ::syncfs(fd);
    ::close(fd);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
}

void BM_Transfer(benchmark::State& state) {
  const unsigned long long size = static_cast<unsigned long long>(state.range(0)) << 20;
  const int rounds = size >= (512ull << 20) ? 3 : 5;
  korvex_test::CTempDir dir("korvex-bench-transfer");
  const std::string source = dir.Path() + "/Korvex_Data.zip";
  const std::string bmc = dir.Path() + "/bmc";
  ::mkdir(bmc.c_str(), 0755);
  if (!MakeSource(source, size)) return kb::Fail(state, "cannot write the source file");
  for (auto _ : state) {
    std::vector<double> ours, oursCpu, cpSync, cpSyncCpu, cpSha, cpShaCpu;
    CHtiStandIn standIn(CHtiMode{}, bmc);
    CHostSwitch hostSwitch(5);
    standIn.RegisterWith(hostSwitch);
    const std::string dst = bmc + "/copy.zip";
    auto cpSyncRun = [&] {
      double w = 0, c = 0;
      if (!RunTimed({"/bin/sh", "-c", "cp '" + source + "' '" + dst + "' && sync '" + dst + "'"}, w,
                    c)) {
        return false;
      }
      cpSync.push_back(w);
      cpSyncCpu.push_back(c);
      RemoveSettled(bmc, "copy.zip");
      return true;
    };
    for (int round = 0; round < rounds; ++round) {
      // Odd rounds run the cp + sync reference first, so that neither side
      // always follows the other's freed blocks and page cache.
      if (round % 2 == 1 && !cpSyncRun()) return kb::Fail(state, "cp + sync failed");
      // em-host's switch and stand-in, in this process.
      const std::string text =
          R"({"SIP":{"V":1,"CMD":[{"OC":61522,"TO":3600,"DA":{"FileType":2,"LocalFilePath":")" +
          source + R"(","BmcFilePath":"copy.zip"}}]}})";
      SipJson request;
      request.FromJson(text.data(), text.size());
      rusage before{};
      rusage after{};
      ::getrusage(RUSAGE_SELF, &before);
      const std::int64_t t0 = kb::NowNs();
      hostSwitch.AsyncRequest(nullptr, request, 5000);
      const double wall = static_cast<double>(kb::NowNs() - t0) / 1e9;
      ::getrusage(RUSAGE_SELF, &after);
      if (request.Status() != 0) {
        return kb::Fail(state, "the transfer answered " + std::to_string(request.Status()));
      }
      ours.push_back(wall);
      oursCpu.push_back(CpuSeconds(after) - CpuSeconds(before));
      RemoveSettled(bmc, "copy.zip");
      if (round % 2 == 0 && !cpSyncRun()) return kb::Fail(state, "cp + sync failed");

      double w = 0, c = 0;
      if (!RunTimed({"/bin/sh", "-c",
                     "cp '" + source + "' '" + dst + "' && sha256sum '" + source + "' '" + dst +
                         "' >/dev/null"},
                    w, c)) {
        return kb::Fail(state, "cp + sha256sum failed");
      }
      cpSha.push_back(w);
      cpShaCpu.push_back(c);
      RemoveSettled(bmc, "copy.zip");
    }
    auto median = [](std::vector<double> v) {
      std::sort(v.begin(), v.end());
      return v[v.size() / 2];
    };
    const double mb = static_cast<double>(size) / 1e6;
    state.counters["ours_s"] = median(ours);
    state.counters["ours_cpu_s"] = median(oursCpu);
    state.counters["ours_mb_s"] = mb / median(ours);
    state.counters["cp_sync_s"] = median(cpSync);
    state.counters["cp_sync_cpu_s"] = median(cpSyncCpu);
    state.counters["cp_sync_mb_s"] = mb / median(cpSync);
    state.counters["cp_sha_s"] = median(cpSha);
    state.counters["cp_sha_cpu_s"] = median(cpShaCpu);
    state.counters["rounds"] = rounds;
  }
}

// ----- FindProcess in a crowd ---------------------------------------------------------

void BM_FindProcessCrowd(benchmark::State& state) {
  const long extra = state.range(0);
  std::vector<pid_t> crowd;
  const std::string tool = kb::ToolPath();
  char* argv[] = {const_cast<char*>("crowd"), nullptr};
  std::vector<std::string> envText = {"KORVEX_BENCH_TOOL_MODE=block"};
  char* env[] = {const_cast<char*>(envText[0].c_str()), nullptr};
  for (long i = 0; i < extra; ++i) {
    pid_t pid = 0;
    if (::posix_spawn(&pid, tool.c_str(), nullptr, nullptr, argv, env) != 0) break;
    crowd.push_back(pid);
  }
  auto reap = [&] {
    for (const pid_t pid : crowd) ::kill(pid, SIGKILL);
    for (const pid_t pid : crowd) ::waitpid(pid, nullptr, 0);
  };
  if (static_cast<long>(crowd.size()) != extra) {
    reap();
    return kb::Fail(state, "could start only " + std::to_string(crowd.size()) + " processes");
  }
  kb::SleepNs(500000000);  // let them all reach pause()
  for (auto _ : state) {
    std::vector<std::int64_t> find, pgrep;
    for (int i = 0; i < 21; ++i) {
      unsigned int pid = 0;
      const std::int64_t t0 = kb::NowNs();
      CProcess::FindProcess(pid, "Korvex");
      find.push_back(kb::NowNs() - t0);
      double wall = 0, cpu = 0;
      // pgrep exits 1 when nothing matches, which is the expected case.
      RunTimed({"/usr/bin/pgrep", "-x", "Korvex"}, wall, cpu);
      pgrep.push_back(static_cast<std::int64_t>(wall * 1e9));
    }
    state.counters["find_median_us"] = kb::Percentile(find, 50) / 1000.0;
    state.counters["pgrep_median_us"] = kb::Percentile(pgrep, 50) / 1000.0;
    state.counters["extra"] = static_cast<double>(extra);
  }
  reap();
}

// ----- serve's memory over a long session ---------------------------------------------

// Writes `lines` installation queries in batches of about 1 MiB, reading
// nothing (the benchmark's thread reads the answers meanwhile).
bool WriteQueries(korvex_test::CChildProcess& host, long lines) {
  std::string batch;
  for (long i = 1; i <= lines; ++i) {
    batch += "{\"id\":" + std::to_string(i) + ",\"request\":" + kb::RequestText(kb::kOpcodeQuery) +
             "}\n";
    if (batch.size() <= (1u << 20) && i != lines) continue;
    if (!host.WriteOnly(batch)) return false;
    batch.clear();
  }
  return true;
}

void BM_ServeRssLines(benchmark::State& state) {
  const long lines = state.range(0);
  korvex_test::CTempDir dir("korvex-bench-serve-rss");
  std::string error;
  if (!kb::InstallTool(dir.Path(), &error)) return kb::Fail(state, error);
  for (auto _ : state) {
    const auto host = kb::StartChild(
        {kb::EmHostPath(), "--tool-root", dir.Path(), "--bmc-dir", dir.Path() + "/bmc", "serve"},
        {}, dir.Path() + "/stderr.log", &error);
    if (!host) return kb::Fail(state, "cannot start em-host: " + error);
    bool written = true;
    std::thread writer([&] { written = WriteQueries(*host, lines); });
    const bool read = host->ReadLines(lines, 600000);
    writer.join();
    const long hwm = kb::StatusKb(host->Pid(), "VmHWM");
    host->Finish(30);
    if (!written || !read) return kb::Fail(state, "em-host did not answer every line");
    state.counters["hwm_kb"] = static_cast<double>(hwm);
    state.counters["lines"] = static_cast<double>(lines);
  }
}

}  // namespace

BENCHMARK(BM_Transfer)
    ->Arg(64)
    ->Arg(512)
    ->Arg(4096)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FindProcessCrowd)
    ->Arg(1000)
    ->Arg(10000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ServeRssLines)
    ->Arg(10000)
    ->Arg(1000000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
