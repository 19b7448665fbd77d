// Scratch files for tests: a temporary directory removed with everything in
// it, and whole-file reading, writing and listing.
#pragma once

#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace korvex_test {

// A directory made with mkdtemp under base, named prefix.XXXXXX; removed
// with its contents (links are removed, never followed) when it goes.
class CTempDir {
 public:
  explicit CTempDir(const std::string& prefix, const std::string& base = "/tmp") {
    std::string pattern = base + "/" + prefix + ".XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr)
      throw std::runtime_error("mkdtemp failed: " + pattern);
    m_Path = pattern;
  }
  ~CTempDir() {
    std::error_code ignored;  // a left-over scratch directory does no harm
    std::filesystem::remove_all(m_Path, ignored);
  }
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  const std::string& Path() const { return m_Path; }
  // A subdirectory, made when missing.
  std::string Sub(const std::string& name) const {
    const std::string path = m_Path + "/" + name;
    ::mkdir(path.c_str(), 0755);
    return path;
  }

 private:
  std::string m_Path;
};

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The names in dir, without "." and "..".
inline std::set<std::string> Entries(const std::string& dir) {
  std::set<std::string> names;
  DIR* listing = ::opendir(dir.c_str());
  if (listing == nullptr) return names;
  while (dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  ::closedir(listing);
  return names;
}

}  // namespace korvex_test
