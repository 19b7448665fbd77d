// Looking at processes from a test: the state of one, the ones running under
// a name, and a bounded wait for something another thread or process does.
// Only tests poll like this; the code under test never does.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korvex_test {

// Polls condition every ten milliseconds until it holds or timeout passed.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(5));

// The state letter of /proc/<pid>/stat, or 0 when the process is gone.
char ProcessState(pid_t pid);
// Alive and not a zombie.
bool ProcessRuns(pid_t pid);

// Process ids of the running (not zombie) processes whose name (comm) is
// exactly name; with under, only those whose command line mentions that
// path (a test's own tools, not somebody else's of the same name).
std::vector<pid_t> ProcessesNamed(const std::string& name, const std::string& under = "");
// Waits up to timeout until no such process runs; true when none.
bool WaitUntilNoneNamed(const std::string& name, std::chrono::milliseconds timeout,
                        const std::string& under = "");
// SIGKILL to every such process (the clean-up after a failure, so that one
// failing test does not poison the next). Does nothing without under: a
// test must not end processes of another run on the same machine.
void KillAllNamed(const std::string& name, const std::string& under);

}  // namespace korvex_test
