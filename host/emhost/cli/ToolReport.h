// What em-host tells the operator about the Korvex tool: where its output
// went, how its last run ended, and who runs a collection that is in the way.
#pragma once

#include "host/HostControl.h"
#include "util/Fd.h"

#include <cstddef>
#include <string>
#include <vector>

// The tool log when --tool-log is not given: beside the tool, in its
// installation root (a directory only root may write to, by the rule that
// refuses tools in others' directories).
std::string DefaultToolLogPath(const std::string& toolRoot);

// The last maxLines lines of the file (read from at most its last 8 KiB),
// each without its line break; empty when the file cannot be read.
std::vector<std::string> LastLogLines(const std::string& path, std::size_t maxLines);

// How the run went, in words: "Korvex exited with exit code 3",
// "Korvex was killed by SIGKILL", "Korvex could not run: ... not found".
std::string DescribeToolRun(const halvane::CToolRun& run);

// A running process for the operator: "pid 4711, user root, /usr/bin/dash
// /opt/korvex/Korvex" (the executable, then the rest of the command line).
std::string DescribeProcess(unsigned int pid);

// An exclusive lock for one tool root, held by create and collect while
// they run: flock on the root directory itself, so that nothing is created
// and two spellings of the same directory share one lock. Released on
// destruction, or when the process ends.
class CCollectionLock {
 public:
  enum class Result { kHeld, kBusy, kFailed };
  CCollectionLock() = default;
  CCollectionLock(const CCollectionLock&) = delete;
  CCollectionLock& operator=(const CCollectionLock&) = delete;

  // Takes the lock without waiting; *error says why on kFailed.
  Result Acquire(const std::string& toolRoot, std::string* error);

 private:
  korvex::CFd m_Fd;
};
