// Helpers of the hardening suites: scratch areas, fake tools, a snapshot of
// a directory tree, the processes running under a name, and em-host driven
// on pipes with deadlines that do not depend on the pipes closing (a tool
// that leaves something behind may keep em-host's output open).
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace hardening {

// A private directory under $TMPDIR (or /tmp), removed with everything in
// it at the end. Mounts made below it are unmounted first.
class CScratch {
 public:
  CScratch();
  ~CScratch();
  CScratch(const CScratch&) = delete;
  CScratch& operator=(const CScratch&) = delete;

  const std::string& Path() const { return m_Path; }
  std::string operator/(const std::string& name) const { return m_Path + "/" + name; }
  // A directory below the area (made with its parents, mode 0755).
  std::string Dir(const std::string& relative) const;
  // Records a mount point below the area to unmount before removal.
  void AddMount(const std::string& path) { m_Mounts.push_back(path); }

 private:
  std::string m_Path;
  std::vector<std::string> m_Mounts;
};

void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644);
std::string ReadFile(const std::string& path);
bool Exists(const std::string& path);
// A shell script: "#!/bin/sh\n" + body, executable.
void WriteScript(const std::string& path, const std::string& body);
// Quotes text for the shell (single quotes).
std::string ShellQuote(const std::string& text);
// Removes a tree (files, links, directories), not following links.
void RemoveTree(const std::string& path);

// Process ids of the running (not zombie) processes whose name (comm) is
// exactly name; with under, only those whose command line mentions that
// path (a test's own tools, not somebody else's of the same name).
std::vector<pid_t> ProcessesNamed(const std::string& name, const std::string& under = "");
// Waits up to timeout until no such process runs; true when none.
bool WaitUntilNoneNamed(const std::string& name, std::chrono::milliseconds timeout,
                        const std::string& under = "");
// SIGKILL to every such process (the clean-up after a failure, so that one
// failing test does not poison the next). Always give under: a test must
// not end processes of another run on the same machine.
void KillAllNamed(const std::string& name, const std::string& under);
// Waits up to timeout for predicate; true when it held.
bool WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

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

// em-host as a child on pipes, in a process group of its own.
class CEmHost {
 public:
  // program: what to run instead of em-host (valgrind, with em-host among
  // the arguments).
  CEmHost(const std::vector<std::string>& arguments, const std::string& workingDir = "",
          const std::string& program = "");
  ~CEmHost();  // SIGKILL to its group if still running
  CEmHost(const CEmHost&) = delete;
  CEmHost& operator=(const CEmHost&) = delete;

  pid_t Pid() const { return m_Pid; }
  void Send(const std::string& line);  // line + "\n"
  void CloseInput();
  // Reads until a complete output line satisfies predicate, up to timeout.
  // True when one did.
  bool WaitForLine(const std::function<bool(const std::string&)>& predicate,
                   std::chrono::milliseconds timeout);
  bool WaitForLineContaining(const std::string& text, std::chrono::milliseconds timeout);
  // Waits for em-host to exit (not for its pipes to close), up to timeout;
  // then takes what is in the pipes. The exit status (128 + signal for a
  // signal), or -1 when it did not exit in time.
  int WaitForExit(std::chrono::milliseconds timeout);
  std::vector<std::string> OutputLines() const;
  const std::string& Output() const { return m_Out; }
  const std::string& Errors() const { return m_Err; }

 private:
  void Pump(int waitMs);

  pid_t m_Pid = -1;
  int m_In = -1;
  int m_OutFd = -1;
  int m_ErrFd = -1;
  std::string m_Out;
  std::string m_Err;
  bool m_Reaped = false;
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
