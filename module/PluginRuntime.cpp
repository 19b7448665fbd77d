// Linked into libEM_KORVEX.so only (not into the static module library of
// the unit tests): what the plug-in defines for itself so that it loads on
// older systems than the one it is built on.
//
// libstdc++'s inline reference counting (the copy-on-write std::string of
// the legacy-ABI build, shared pointers) reads glibc's
// __libc_single_threaded to skip atomic operations in a single-threaded
// process. That variable exists only since glibc 2.32, and a reference to it
// would keep the library from loading on every older system. The plug-in
// always runs inside a multi-threaded host, so its own copy, hidden and
// always 0 ("not single-threaded"), gives the same, always correct, atomic
// path without the reference.
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>

extern "C" {
__attribute__((visibility("hidden"))) char __libc_single_threaded = 0;
}
#endif
