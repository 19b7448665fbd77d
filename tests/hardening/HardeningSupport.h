// Helpers of the hardening suites: a snapshot of a directory tree and em-host
// run on pipes in a process group of its own. Scratch areas, files, process
// lookups and the child driver come from tests/support.
#pragma once

#include "tests/support/ChildProcess.h"
#include "tests/support/Processes.h"
#include "tests/support/TempFiles.h"

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace hardening {

using korvex_test::CTempDir;
using korvex_test::Exists;
using korvex_test::KillAllNamed;
using korvex_test::ProcessesNamed;
using korvex_test::ReadFile;
using korvex_test::RemoveTree;
using korvex_test::ShellQuote;
using korvex_test::WaitUntil;
using korvex_test::WaitUntilNoneNamed;
using korvex_test::WriteFile;
using korvex_test::WriteScript;

// One entry of a tree snapshot: what a write anywhere would change.
struct CNode {
  char m_Type = '?';  // f file, d directory, l link, o other
  long long m_Size = 0;
  unsigned int m_Mode = 0;
  long long m_MtimeNs = 0;
  unsigned long long m_Inode = 0;
  std::string m_Link;  // link target
  bool operator==(const CNode& other) const {
    return m_Type == other.m_Type && m_Size == other.m_Size && m_Mode == other.m_Mode &&
           m_MtimeNs == other.m_MtimeNs && m_Inode == other.m_Inode && m_Link == other.m_Link;
  }
  bool operator!=(const CNode& other) const { return !(*this == other); }
};
// Every path below root (relative to it, root itself as "."), not
// following links.
std::map<std::string, CNode> Snapshot(const std::string& root);
// Lines "+ path", "- path", "~ path" for what differs between two snapshots.
std::vector<std::string> Differences(const std::map<std::string, CNode>& before,
                                     const std::map<std::string, CNode>& after);

// em-host as a child on pipes, in a process group of its own. program:
// what to run instead of em-host (valgrind, with em-host among the
// arguments).
class CEmHost : public korvex_test::CChildProcess {
 public:
  CEmHost(const std::vector<std::string>& arguments, const std::string& workingDir = "",
          const std::string& program = "");
};

struct CResult {
  int m_Exit = -1;
  std::string m_Out;
  std::string m_Err;
  double m_Seconds = 0;
};
// Runs em-host with the arguments to its end (input closed at once).
CResult RunEmHost(const std::vector<std::string>& arguments, std::chrono::milliseconds timeout,
                  const std::string& workingDir = "");

std::string EmHostBinary();

}  // namespace hardening
