// The stand-in BMC file-transfer module: request parsing, name checks and
// the verified, all-or-nothing copy into the BMC directory.
#include "host/emhost/BmcFileTransfer.h"

#include "host/emhost/Sha256.h"
#include "message/SipJson.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// Room kept free beyond the file itself: the checksum file and directory
// entries of the two renames.
constexpr std::uint64_t kSpaceReserve = 4096;
constexpr std::size_t kMaxNameLength = 200;
// Internal result of a copy the switch gave up on; never answered.
constexpr unsigned int kAbandoned = 0xFFFFFFFFu;

bool WriteAll(int fd, const char* data, std::size_t length) {
  while (length > 0) {
    const ssize_t done = ::write(fd, data, length);
    if (done < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += done;
    length -= static_cast<std::size_t>(done);
  }
  return true;
}

// Removes the temporary files of a copy that does not complete.
class CTempFiles {
 public:
  ~CTempFiles() {
    for (const std::string& path : m_Paths) ::unlink(path.c_str());
  }
  void Add(const std::string& path) { m_Paths.push_back(path); }
  void Release() { m_Paths.clear(); }

 private:
  std::vector<std::string> m_Paths;
};

// A private temporary file in dir, named after the final name so that a
// left-over (after a crash) shows what it was. The leading "." keeps it out
// of plain directory listings.
int MakeTemp(const std::string& dir, const std::string& finalName, std::string& path) {
  path = dir + "/." + finalName + ".XXXXXX";
  std::vector<char> buffer(path.begin(), path.end());
  buffer.push_back('\0');
  const int fd = ::mkostemp(buffer.data(), O_CLOEXEC);
  if (fd >= 0) path.assign(buffer.data());
  return fd;
}

}  // namespace

CBmcFileTransfer::CBmcFileTransfer(std::string bmcDir) : m_BmcDir(std::move(bmcDir)) {}

unsigned int CBmcFileTransfer::ParseRequest(const SipJson& request, CBmcTransferRequest& out) {
  const JsonValue* data = request.FindCmdMember(request.m_CmdIndex, "DA");
  if (data == nullptr || !data->IsObject()) return BMC_BAD_REQUEST;
  const JsonValue::ConstMemberIterator type = data->FindMember("FileType");
  const JsonValue::ConstMemberIterator local = data->FindMember("LocalFilePath");
  const JsonValue::ConstMemberIterator bmc = data->FindMember("BmcFilePath");
  if (type == data->MemberEnd() || !type->value.IsUint() || local == data->MemberEnd() ||
      !local->value.IsString() || bmc == data->MemberEnd() || !bmc->value.IsString()) {
    return BMC_BAD_REQUEST;
  }
  if (type->value.GetUint() != kFileTypeKorvexArchive) return BMC_BAD_REQUEST;
  unsigned int timeout = 0;
  if (const JsonValue* to = request.FindCmdMember(request.m_CmdIndex, "TO")) {
    if (!to->IsUint()) return BMC_BAD_REQUEST;
    timeout = to->GetUint();
  }
  out.m_FileType = type->value.GetUint();
  out.m_LocalPath.assign(local->value.GetString(), local->value.GetStringLength());
  out.m_BmcName.assign(bmc->value.GetString(), bmc->value.GetStringLength());
  out.m_TimeoutSec = timeout;
  return BMC_OK;
}

bool CBmcFileTransfer::NameAcceptable(const std::string& name) {
  if (name.empty() || name == "." || name.size() > kMaxNameLength) return false;
  if (name.find("..") != std::string::npos) return false;
  for (const char c : name) {
    // "/" would leave the directory (and makes absolute paths); "\\" and
    // control characters would be escaped in the checksum line and no
    // longer name the file plainly.
    if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
  }
  return true;
}

void CBmcFileTransfer::Run(const CBmcTransferRequest& request, CBmcTransferJob& job) const {
  unsigned int status = BMC_WRITE_FAILED;
  try {
    status = Copy(request, job);
  } catch (const std::exception&) {
    status = BMC_WRITE_FAILED;  // e.g. no memory, libcrypto failure
  }
  std::lock_guard<std::mutex> lock(job.m_Mutex);
  if (!job.m_Finished) {
    job.m_Status = status == kAbandoned ? BMC_TIMED_OUT : status;
    job.m_Finished = true;
  }
  job.m_Done.notify_all();
}

unsigned int CBmcFileTransfer::Copy(const CBmcTransferRequest& request,
                                    CBmcTransferJob& job) const {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  const bool limited = request.m_TimeoutSec != 0;
  const Clock::time_point deadline = start + std::chrono::seconds(request.m_TimeoutSec);
  auto overdue = [&] { return limited && Clock::now() >= deadline; };

  if (!NameAcceptable(request.m_BmcName)) return BMC_NAME_REFUSED;

  const int source = ::open(request.m_LocalPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (source < 0) return BMC_SOURCE_UNREADABLE;
  struct SourceCloser {
    int fd;
    ~SourceCloser() { ::close(fd); }
  } closeSource{source};
  struct stat sourceStat {};
  if (::fstat(source, &sourceStat) != 0 || !S_ISREG(sourceStat.st_mode)) {
    return BMC_SOURCE_UNREADABLE;
  }
  const std::uint64_t size = static_cast<std::uint64_t>(sourceStat.st_size);

  struct statvfs space {};
  if (::statvfs(m_BmcDir.c_str(), &space) != 0) return BMC_WRITE_FAILED;
  const std::uint64_t available =
      static_cast<std::uint64_t>(space.f_bavail) * static_cast<std::uint64_t>(space.f_frsize);
  if (available < size + kSpaceReserve) return BMC_NO_SPACE;

  CTempFiles temps;
  std::string tempPath;
  const int target = MakeTemp(m_BmcDir, request.m_BmcName, tempPath);
  if (target < 0) return BMC_WRITE_FAILED;
  temps.Add(tempPath);
  struct TargetCloser {
    int fd;
    ~TargetCloser() {
      if (fd >= 0) ::close(fd);
    }
  } closeTarget{target};

  CSha256 sourceDigest;
  std::string buffer(m_ChunkBytes == 0 ? 1u : m_ChunkBytes, '\0');
  std::uint64_t copied = 0;
  for (;;) {
    const ssize_t got = ::read(source, &buffer[0], buffer.size());
    if (got < 0) {
      if (errno == EINTR) continue;
      return BMC_SOURCE_UNREADABLE;
    }
    if (got == 0) break;
    sourceDigest.Update(buffer.data(), static_cast<std::size_t>(got));
    if (!WriteAll(target, buffer.data(), static_cast<std::size_t>(got))) {
      return errno == ENOSPC || errno == EDQUOT ? BMC_NO_SPACE : BMC_WRITE_FAILED;
    }
    copied += static_cast<std::uint64_t>(got);
    if (m_PauseMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(m_PauseMs));
    if (job.Cancelled()) return kAbandoned;
    if (overdue()) return BMC_TIMED_OUT;
  }
  // mkstemp creates the file for its owner only; a stored file is readable
  // like any other file the BMC directory receives.
  if (::fchmod(target, 0644) != 0 || ::fsync(target) != 0) {
    return errno == ENOSPC || errno == EDQUOT ? BMC_NO_SPACE : BMC_WRITE_FAILED;
  }
  const int closeResult = ::close(target);
  closeTarget.fd = -1;
  if (closeResult != 0) return BMC_WRITE_FAILED;

  // Read the copy back: what is renamed into place is what was verified.
  const std::string hex = sourceDigest.FinalHex();
  std::string copyHex;
  struct stat copyStat {};
  if (!Sha256OfFile(tempPath, copyHex, nullptr) || copyHex != hex ||
      ::stat(tempPath.c_str(), &copyStat) != 0 ||
      static_cast<std::uint64_t>(copyStat.st_size) != copied) {
    return BMC_WRITE_FAILED;
  }
  if (job.Cancelled()) return kAbandoned;
  if (overdue()) return BMC_TIMED_OUT;

  // The checksum line, two spaces between digest and name, as sha256sum writes it.
  std::string sumPath;
  const int sum = MakeTemp(m_BmcDir, request.m_BmcName + ".sha256", sumPath);
  if (sum < 0) return BMC_WRITE_FAILED;
  temps.Add(sumPath);
  const std::string line = hex + "  " + request.m_BmcName + "\n";
  const bool sumWritten =
      WriteAll(sum, line.data(), line.size()) && ::fchmod(sum, 0644) == 0 && ::fsync(sum) == 0;
  const int sumErrno = errno;
  if (::close(sum) != 0 || !sumWritten) {
    return sumErrno == ENOSPC || sumErrno == EDQUOT ? BMC_NO_SPACE : BMC_WRITE_FAILED;
  }

  const std::string finalPath = m_BmcDir + "/" + request.m_BmcName;
  const std::string finalSumPath = finalPath + ".sha256";
  std::lock_guard<std::mutex> lock(job.m_Mutex);
  if (job.m_Cancelled) return kAbandoned;
  if (::rename(tempPath.c_str(), finalPath.c_str()) != 0) return BMC_WRITE_FAILED;
  if (::rename(sumPath.c_str(), finalSumPath.c_str()) != 0) {
    // An archive without its checksum is not a finished transfer.
    ::unlink(finalPath.c_str());
    return BMC_WRITE_FAILED;
  }
  temps.Release();
  // Make the two renames durable before answering success.
  const int dir = ::open(m_BmcDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  job.m_Status = BMC_OK;
  job.m_StoredPath = finalPath;
  job.m_Sha256 = hex;
  job.m_Size = copied;
  job.m_Finished = true;
  return BMC_OK;
}
