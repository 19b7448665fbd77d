// The tool's output on its way into its size-bounded log (ProcessTree.cpp's
// supervisor copies the output pipe through it).
//
// Once the log holds its half of the bound it is due to be moved aside to
// the old name (replacing the one moved there before) and started anew. The
// move waits for the end of the line being written, so the old file ends
// with a whole line and the new one begins with one; and it happens only
// just before more output is written, so the newest output is always in the
// current log, never only in the moved-aside one (an operator reads the
// current log first, and the CLI shows its last lines). A line that runs on
// for another half without an end is cut where it stands.
//
// Used in the forked supervisor: plain system calls on memory prepared
// before the fork, no allocation, no locks.
#pragma once

#include <cstddef>

namespace halvane {

class CToolLogCopy {
 public:
  // Takes the descriptor over (fd, -1: output is dropped); the directory
  // descriptor and names are borrowed. halfBytes 0 never moves the log
  // aside, nor does a dirFd of -1. size: what the log holds already (it is
  // taken to end with a whole line).
  CToolLogCopy(int fd, int dirFd, const char* name, const char* oldName, std::size_t halfBytes,
               std::size_t size) noexcept;
  ~CToolLogCopy();
  CToolLogCopy(const CToolLogCopy&) = delete;
  CToolLogCopy& operator=(const CToolLogCopy&) = delete;

  void Write(const char* data, std::size_t length) noexcept;

 private:
  bool Due() const noexcept;
  void Append(const char* data, std::size_t length) noexcept;
  void MoveAside() noexcept;

  int m_Fd;
  int m_DirFd;
  const char* m_Name;
  const char* m_OldName;
  std::size_t m_Half;
  std::size_t m_Size;
  bool m_AtLineStart = true;
};

}  // namespace halvane
