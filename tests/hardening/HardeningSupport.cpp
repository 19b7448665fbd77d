// Helpers of the hardening suites: tree snapshots and em-host on pipes.
#include "tests/hardening/HardeningSupport.h"

#include <sys/stat.h>
#include <unistd.h>

namespace hardening {

namespace {

void SnapshotInto(const std::string& root, const std::string& relative,
                  std::map<std::string, CNode>& out) {
  const std::string path = relative == "." ? root : root + "/" + relative;
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return;
  CNode node;
  node.m_Size = static_cast<long long>(info.st_size);
  node.m_Mode = static_cast<unsigned int>(info.st_mode);
  node.m_MtimeNs =
      static_cast<long long>(info.st_mtim.tv_sec) * 1000000000LL + info.st_mtim.tv_nsec;
  node.m_Inode = static_cast<unsigned long long>(info.st_ino);
  if (S_ISREG(info.st_mode)) {
    node.m_Type = 'f';
  } else if (S_ISDIR(info.st_mode)) {
    node.m_Type = 'd';
  } else if (S_ISLNK(info.st_mode)) {
    node.m_Type = 'l';
    char target[4096];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof(target));
    if (length > 0) node.m_Link.assign(target, static_cast<std::size_t>(length));
  } else {
    node.m_Type = 'o';
  }
  out[relative] = node;
  if (node.m_Type != 'd') return;
  for (const std::string& name : korvex_test::Entries(path)) {
    SnapshotInto(root, relative == "." ? name : relative + "/" + name, out);
  }
}

}  // namespace

std::map<std::string, CNode> Snapshot(const std::string& root) {
  std::map<std::string, CNode> out;
  SnapshotInto(root, ".", out);
  return out;
}

std::vector<std::string> Differences(const std::map<std::string, CNode>& before,
                                     const std::map<std::string, CNode>& after) {
  std::vector<std::string> lines;
  for (const auto& entry : before) {
    const auto found = after.find(entry.first);
    if (found == after.end()) {
      lines.push_back("- " + entry.first);
    } else if (found->second != entry.second) {
      lines.push_back("~ " + entry.first);
    }
  }
  for (const auto& entry : after) {
    if (before.find(entry.first) == before.end()) lines.push_back("+ " + entry.first);
  }
  return lines;
}

std::string EmHostBinary() { return EMHOST_BIN; }

namespace {

std::vector<std::string> EmHostCommand(const std::vector<std::string>& arguments,
                                       const std::string& program) {
  std::vector<std::string> argv{program.empty() ? EmHostBinary() : program};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return argv;
}

korvex_test::CChildOptions InOwnGroup(const std::string& workingDir) {
  korvex_test::CChildOptions options;
  options.m_WorkingDir = workingDir;
  options.m_OwnGroup = true;
  return options;
}

}  // namespace

CEmHost::CEmHost(const std::vector<std::string>& arguments, const std::string& workingDir,
                 const std::string& program)
    : CChildProcess(EmHostCommand(arguments, program), {}, InOwnGroup(workingDir)) {}

CResult RunEmHost(const std::vector<std::string>& arguments, std::chrono::milliseconds timeout,
                  const std::string& workingDir) {
  const auto start = std::chrono::steady_clock::now();
  CEmHost host(arguments, workingDir);
  host.CloseInput();
  CResult result;
  result.m_Exit = host.WaitForExit(timeout);
  result.m_Seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.m_Out = host.Out();
  result.m_Err = host.Err();
  return result;
}

}  // namespace hardening
