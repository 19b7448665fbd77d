// korvex_bench_tool: the trivial collection tool of the benchmarks. Installed
// as "Korvex" in a scratch tool root, it is what the module runs; the
// benchmark also spawns it directly as the reference.
//
// Without KORVEX_BENCH_TOOL_MODE it writes a small Korvex_Data.zip beside
// its own executable (the module starts it by its full path, so argv[0]
// names the tool root), takes CLOCK_MONOTONIC and writes the 8 bytes of the
// stamp to the descriptor named by KORVEX_BENCH_STAMP_FD (inherited from the
// benchmark), and _exits with 0. The stamp is the last thing it does, so the
// time from the stamp to the module's SendReply is the module's (and the
// host's) reaction to the tool's end.
//
// With KORVEX_BENCH_TOOL_MODE=block it writes the stamp and its process id
// (8 bytes each) and then waits until it is killed: a tool that keeps the
// module's worker busy while tasks queue up behind it.
//
// C library calls only: no C++ run time to load, so the tool starts about as
// fast as a program can.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

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

void Stamp() {
  const char* fdText = std::getenv("KORVEX_BENCH_STAMP_FD");
  if (fdText == nullptr) return;
  const int fd = std::atoi(fdText);
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::int64_t ns = static_cast<std::int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
  WriteAll(fd, &ns, sizeof(ns));
}

}  // namespace

int main(int /*argc*/, char** argv) {
  const char* mode = std::getenv("KORVEX_BENCH_TOOL_MODE");
  if (mode != nullptr && std::strcmp(mode, "block") == 0) {
    // The stamp says "running"; the process id after it lets the benchmark
    // clean up should the host fail to end the tool.
    Stamp();
    const std::int64_t pid = ::getpid();
    const char* fdText = std::getenv("KORVEX_BENCH_STAMP_FD");
    if (fdText != nullptr) WriteAll(std::atoi(fdText), &pid, sizeof(pid));
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

  Stamp();
  ::_exit(0);
}
