// korvex_bench_tool: the trivial collection tool of the benchmarks. Installed
// as "Korvex" in a scratch tool root, it is what the module runs; the
// benchmark also spawns it directly as the reference.
//
// Without KORVEX_BENCH_TOOL_MODE it writes a small Korvex_Data.zip beside
// its own executable (the module starts it by its full path, so argv[0]
// names the tool root), opens the FIFO named by KORVEX_BENCH_STAMP_PATH
// (made and held open by the benchmark), takes CLOCK_MONOTONIC, writes the 8
// bytes of the stamp into the FIFO and _exits with 0. The stamp is the last
// thing it does, so the time from the stamp to the module's SendReply is the
// module's (and the host's) reaction to the tool's end. Without the variable,
// or when nobody holds the FIFO open, it stamps nothing.
//
// With KORVEX_BENCH_TOOL_MODE=block it writes the stamp and its process id
// (8 bytes each, in one write) and then waits until it is killed: a tool
// that keeps the module's worker busy while tasks queue up behind it.
//
// C library calls only: no C++ run time to load, so the tool starts about as
// fast as a program can.
#include "bench/BenchStamp.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

namespace {

void WriteAll(int fd, const void* data, std::size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(fd, bytes, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
}

// The FIFO, opened before the clock is read so that the stamp stays the
// last thing the tool does; -1 when there is none. Non-blocking: a FIFO
// without a reader fails at once (ENXIO) instead of holding the tool.
int OpenStampFifo() {
  const char* path = std::getenv(korvex_bench::kStampPathVariable);
  if (path == nullptr || *path == '\0') return -1;
  return ::open(path, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
}

std::int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// This process's id as the benchmark sees it. The supervisor may start the
// tool in a PID namespace of its own, where getpid() is a small number that
// means another process outside; /proc (mounted for the benchmark's
// namespace, and not remounted by the supervisor) names the process by the
// id it has there. 0 when it cannot tell: the benchmark then does without.
std::int64_t PidOutside() {
  char text[32];
  const ssize_t length = ::readlink("/proc/self", text, sizeof(text) - 1);
  if (length <= 0) return 0;
  text[length] = '\0';
  char* end = nullptr;
  const long pid = std::strtol(text, &end, 10);
  return (*end == '\0' && pid > 0 && pid < INT_MAX) ? pid : 0;
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const char* mode = std::getenv("KORVEX_BENCH_TOOL_MODE");
  if (mode != nullptr && std::strcmp(mode, "block") == 0) {
    // The stamp says "running"; the process id after it lets the benchmark
    // clean up should the host fail to end the tool. One write of 16 bytes:
    // the FIFO hands it over whole.
    const int fifo = OpenStampFifo();
    if (fifo >= 0) {
      const std::int64_t record[2] = {MonotonicNs(), PidOutside()};
      WriteAll(fifo, record, sizeof(record));
    }
    for (;;) ::pause();
  }

  // <dir of argv[0]>/Korvex_Data.zip; a bare name writes into the current
  // directory.
  char path[4096];
  const char* self = argv[0] != nullptr ? argv[0] : "";
  const char* slash = std::strrchr(self, '/');
  const std::size_t dirLength = slash != nullptr ? static_cast<std::size_t>(slash - self) + 1 : 0;
  static const char kArchive[] = "Korvex_Data.zip";
  if (dirLength + sizeof(kArchive) > sizeof(path)) return 3;
  std::memcpy(path, self, dirLength);
  std::memcpy(path + dirLength, kArchive, sizeof(kArchive));

  // A new file, never an old one truncated: the benchmark runs the tool
  // through the module and bare in turn, and ext4 writes a truncated-and-
  // rewritten file back at once (its guard for programs that replace files
  // without fsync), which would make the module's deletion of the previous
  // archive wait for that disk write - a cost of the benchmark, not of the
  // module, whose previous archive is normally long on disk.
  ::unlink(path);
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return 2;
  // An empty zip archive (its end-of-central-directory record) and some
  // padding: a small archive of 1 KiB.
  char content[1024] = {'P', 'K', 5, 6};
  WriteAll(fd, content, sizeof(content));
  ::close(fd);

  const int fifo = OpenStampFifo();
  if (fifo >= 0) {
    const std::int64_t ns = MonotonicNs();
    WriteAll(fifo, &ns, sizeof(ns));
  }
  ::_exit(0);
}
