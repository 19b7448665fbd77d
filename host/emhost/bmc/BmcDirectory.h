// The stand-in BMC's directory, opened once when em-host starts. Every file
// operation of a transfer is made relative to that open directory (openat,
// renameat, unlinkat, fstatvfs, fsync of the directory itself), so that
// swapping the directory's path for a symbolic link while em-host runs
// cannot send a single byte elsewhere: the path is looked up exactly once.
#pragma once

#include "util/Fd.h"

#include <cstdint>
#include <string>
#include <utility>

class CBmcDirectory {
 public:
  // Opens path as a directory. A symbolic link given here is followed: the
  // operator named it. When the directory cannot be opened, Valid() is
  // false and Error() says why; every transfer then fails.
  explicit CBmcDirectory(std::string path);

  bool Valid() const { return m_Fd.Valid(); }
  const std::string& Error() const { return m_Error; }
  // The path as given, for messages only: it is never looked up again.
  const std::string& Path() const { return m_Path; }
  int Fd() const { return m_Fd.Get(); }

  // Creates a new, private (0600) file ".<base>.<random>" for reading and
  // writing, never through a link and never over an existing entry. The
  // leading dot keeps it out of plain listings; the base name tells what a
  // left-over (after a crash) was meant to become. -1 with errno on failure.
  int CreateTemp(const std::string& base, std::string& name) const;
  bool Rename(const std::string& from, const std::string& to) const;
  // Rename that also tells whether an entry named to was there and is now
  // replaced, decided by the rename itself rather than a look beforehand.
  bool Replace(const std::string& from, const std::string& to, bool& replaced) const;
  void Remove(const std::string& name) const;
  // fsync of the directory: makes renames and removals durable.
  bool Sync() const;
  // Bytes an unprivileged writer may still use; false with errno.
  bool FreeBytes(std::uint64_t& bytes) const;

 private:
  std::string m_Path;
  korvex::CFd m_Fd;
  std::string m_Error;
};

// A temporary entry of the directory, removed unless Keep() is called (its
// final rename took it away).
class CTempEntry {
 public:
  explicit CTempEntry(const CBmcDirectory& dir, std::string name = std::string())
      : m_Dir(dir), m_Name(std::move(name)) {}
  ~CTempEntry() {
    if (!m_Name.empty()) m_Dir.Remove(m_Name);
  }
  CTempEntry(const CTempEntry&) = delete;
  CTempEntry& operator=(const CTempEntry&) = delete;

  const std::string& Name() const { return m_Name; }
  // Takes charge of name (the entry held before is no longer removed).
  void Adopt(std::string name) { m_Name = std::move(name); }
  void Keep() { m_Name.clear(); }

 private:
  const CBmcDirectory& m_Dir;
  std::string m_Name;
};
