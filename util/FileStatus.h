// File-status queries for code that ends up in the plug-in.
//
// The plug-in must load into hosts on older systems than the one it is built
// on. Since glibc 2.33 the stat family is exported under the version
// GLIBC_2.33 (before, the headers routed it through __xstat), so a plain
// stat() call would make the library refuse to load on any older system
// although nothing else in it needs one. These wrappers make the same
// kernel call that glibc's stat and lstat make, through syscall(), which
// every glibc has exported since 2.2.5.
#pragma once

#include <sys/stat.h>

namespace korvex {

// stat(path, &status): follows a symbolic link. 0 on success; -1 with errno
// set otherwise.
int FileStatus(const char* path, struct stat& status);

// lstat of name relative to the open directory directoryFd (AT_FDCWD: the
// working directory): a symbolic link is described itself, never followed.
// 0 on success; -1 with errno set otherwise.
int LinkStatusAt(int directoryFd, const char* name, struct stat& status);

}  // namespace korvex
