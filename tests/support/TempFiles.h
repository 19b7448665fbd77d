// Scratch files for tests and benchmarks: a temporary directory removed with
// everything in it, and whole-file reading, writing and listing. Every suite
// takes these from here, so that a scratch area is made and removed one way
// (links below it are removed, never followed).
#pragma once

#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korvex_test {

// A directory made with mkdtemp under base, named prefix.XXXXXX; base empty
// means $TMPDIR, else /tmp. Throws std::runtime_error when it cannot be
// made. Removed with its contents when it goes; mounts recorded with
// AddMount are detached first.
class CTempDir {
 public:
  explicit CTempDir(const std::string& prefix = "korvex-test", const std::string& base = "");
  ~CTempDir();
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  bool Valid() const { return !m_Path.empty(); }
  const std::string& Path() const { return m_Path; }
  // The path with a trailing "/", as the module builds its paths.
  std::string Root() const { return m_Path + "/"; }
  std::string operator/(const std::string& name) const { return m_Path + "/" + name; }
  // A subdirectory (mode 0755), made with its parents when missing.
  std::string Sub(const std::string& relative) const;
  // Records a mount point below the directory, to detach before removal.
  void AddMount(const std::string& path) { m_Mounts.push_back(path); }

 private:
  std::string m_Path;
  std::vector<std::string> m_Mounts;
};

// Writes content through a close-on-exec descriptor and sets mode, so that a
// child forked by another thread meanwhile never holds the file open for
// writing (executing it would then fail with "text file busy"). Throws
// std::runtime_error naming the path when it cannot.
void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644);
// A fake tool: "#!/bin/sh\n" + body, mode 0755, written under another name
// and renamed into place.
void WriteScript(const std::string& path, const std::string& body);
// The whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);
// Whether a directory entry of that name is there (a link counts, followed
// or not).
bool Exists(const std::string& path);
// The names in dir, without "." and "..".
std::set<std::string> Entries(const std::string& dir);
// Removes a tree (files, links, directories), not following links; a
// directory a test made read-only is made writable first.
void RemoveTree(const std::string& path);
// Quotes text for the shell (single quotes).
std::string ShellQuote(const std::string& text);

}  // namespace korvex_test
