#include "util/FileStatus.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

// newfstatat fills the C library's struct stat directly on the 64-bit
// targets that have it (glibc itself calls it with the caller's buffer
// there); a target without it needs its own variant of this file.
#ifndef SYS_newfstatat
#error "util/FileStatus.cpp: this target has no newfstatat system call"
#endif

namespace korvex {

namespace {

int StatusAt(int directoryFd, const char* path, struct stat& status, int flags) {
  return static_cast<int>(syscall(SYS_newfstatat, directoryFd, path, &status, flags));
}

}  // namespace

int FileStatus(const char* path, struct stat& status) {
  return StatusAt(AT_FDCWD, path, status, 0);
}

int LinkStatusAt(int directoryFd, const char* name, struct stat& status) {
  return StatusAt(directoryFd, name, status, AT_SYMLINK_NOFOLLOW);
}

}  // namespace korvex
