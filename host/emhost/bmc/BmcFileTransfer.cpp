// The stand-in BMC file-transfer module: request parsing, name checks and
// the verified, all-or-nothing copy into the BMC directory.
#include "host/emhost/bmc/BmcFileTransfer.h"

#include "message/SipJson.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

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

unsigned int SpaceOr(int error, unsigned int otherwise) {
  return error == ENOSPC || error == EDQUOT ? BMC_NO_SPACE : otherwise;
}

const char* KindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISLNK(mode)) return "a symbolic link";
  return "not a regular file";
}

unsigned int CopyStatus(CopyOutcome outcome) {
  switch (outcome) {
    case CopyOutcome::kDone:
      return BMC_OK;
    case CopyOutcome::kReadFailed:
      return BMC_SOURCE_UNREADABLE;
    case CopyOutcome::kNoSpace:
      return BMC_NO_SPACE;
    case CopyOutcome::kStopped:
      return kAbandoned;
    default:
      return BMC_WRITE_FAILED;
  }
}

}  // namespace

int OpenRegularSource(const std::string& path, std::string& why) {
  // O_NONBLOCK: opening a FIFO without a writer (or a device that waits for
  // a carrier) must not hang the transfer; it is cleared again below.
  CUniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.Valid()) {
    why = path + (errno == ELOOP ? std::string(" is a symbolic link (not followed)")
                                 : ": " + std::string(std::strerror(errno)));
    return -1;
  }
  struct stat info {};
  if (::fstat(fd.Get(), &info) != 0) {
    why = path + ": " + std::strerror(errno);
    return -1;
  }
  if (!S_ISREG(info.st_mode)) {
    why = path + " is " + KindOf(info.st_mode) + ", not a regular file";
    return -1;
  }
  const int flags = ::fcntl(fd.Get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    why = path + ": " + std::strerror(errno);
    return -1;
  }
  return fd.Release();
}

CBmcFileTransfer::CBmcFileTransfer(std::string bmcDir, CCopySettings settings)
    : m_Dir(std::move(bmcDir)), m_Settings(settings) {}

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
  } catch (const std::exception& e) {
    status = BMC_WRITE_FAILED;  // e.g. no memory, libcrypto failure
    std::lock_guard<std::mutex> lock(job.m_Mutex);
    job.m_Message = e.what();
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
  const bool limited = request.m_TimeoutSec != 0;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(request.m_TimeoutSec);
  const std::function<bool()> overdue = [limited, deadline] {
    return limited && Clock::now() >= deadline;
  };
  auto fail = [&job](unsigned int status, const std::string& why) {
    std::lock_guard<std::mutex> lock(job.m_Mutex);
    job.m_Message = why;
    return status;
  };

  if (!NameAcceptable(request.m_BmcName)) return BMC_NAME_REFUSED;
  if (!m_Dir.Valid()) return fail(BMC_WRITE_FAILED, "the BMC directory " + m_Dir.Error());
  std::string why;
  const CUniqueFd source(OpenRegularSource(request.m_LocalPath, why));
  if (!source.Valid()) return fail(BMC_SOURCE_UNREADABLE, why);
  return Store(request, source.Get(), job, overdue);
}

unsigned int CBmcFileTransfer::Store(const CBmcTransferRequest& request, int source,
                                     CBmcTransferJob& job,
                                     const std::function<bool()>& overdue) const {
  auto fail = [&job](unsigned int status, const std::string& why) {
    std::lock_guard<std::mutex> lock(job.m_Mutex);
    job.m_Message = why;
    return status;
  };
  const std::string& name = request.m_BmcName;
  struct stat sourceStat {};
  if (::fstat(source, &sourceStat) != 0) return fail(BMC_SOURCE_UNREADABLE, std::strerror(errno));
  const std::uint64_t size = static_cast<std::uint64_t>(sourceStat.st_size);
  job.m_Progress.m_Total.store(size, std::memory_order_relaxed);

  std::uint64_t available = 0;
  if (!m_Dir.FreeBytes(available)) return fail(BMC_WRITE_FAILED, std::strerror(errno));
  if (available < size + kSpaceReserve) {
    return fail(BMC_NO_SPACE,
                std::to_string(size) + " bytes needed, " + std::to_string(available) + " free");
  }

  std::string tempName;
  const CUniqueFd target(m_Dir.CreateTemp(name, tempName));
  if (!target.Valid()) {
    return fail(SpaceOr(errno, BMC_WRITE_FAILED),
                std::string("cannot create a file in the BMC directory: ") + std::strerror(errno));
  }
  CTempEntry temp(m_Dir, tempName);
  // Large copies (and all of them when the device read-back is asked for)
  // bypass the page cache; where the file system offers no direct I/O the
  // page cache it is.
  if (m_Settings.m_ReadBackFromDevice || size >= m_Settings.m_DirectFromBytes) {
    const int flags = ::fcntl(target.Get(), F_GETFL);
    if (flags >= 0) ::fcntl(target.Get(), F_SETFL, flags | O_DIRECT);
  }

  const std::function<bool()> stop = [&] { return job.Cancelled() || overdue(); };
  const CCopyResult copied =
      CopyVerified(source, target.Get(), -1, m_Settings, stop, &job.m_Progress);
  if (copied.m_Outcome == CopyOutcome::kStopped) {
    return job.Cancelled() ? kAbandoned : fail(BMC_TIMED_OUT, "the time limit ran out");
  }
  if (copied.m_Outcome != CopyOutcome::kDone) {
    return fail(CopyStatus(copied.m_Outcome), copied.m_Why);
  }
  // The copy was created for its owner only; a stored file is readable like
  // any other file the BMC directory receives.
  if (::fchmod(target.Get(), 0644) != 0 || ::fsync(target.Get()) != 0) {
    return fail(BMC_WRITE_FAILED, std::strerror(errno));
  }
  if (job.Cancelled()) return kAbandoned;
  if (overdue()) return fail(BMC_TIMED_OUT, "the time limit ran out");

  // The checksum line, two spaces between digest and name, as sha256sum writes it.
  std::string sumTempName;
  const CUniqueFd sum(m_Dir.CreateTemp(name + ".sha256", sumTempName));
  if (!sum.Valid()) return fail(SpaceOr(errno, BMC_WRITE_FAILED), std::strerror(errno));
  CTempEntry sumTemp(m_Dir, sumTempName);
  const std::string line = copied.m_Sha256 + "  " + name + "\n";
  if (!WriteAll(sum.Get(), line.data(), line.size()) || ::fchmod(sum.Get(), 0644) != 0 ||
      ::fsync(sum.Get()) != 0) {
    return fail(SpaceOr(errno, BMC_WRITE_FAILED), std::strerror(errno));
  }

  std::lock_guard<std::mutex> lock(job.m_Mutex);
  if (job.m_Cancelled) return kAbandoned;
  if (!m_Dir.Rename(temp.Name(), name)) {
    job.m_Message = std::strerror(errno);
    return BMC_WRITE_FAILED;
  }
  temp.Keep();
  if (!m_Dir.Rename(sumTemp.Name(), name + ".sha256")) {
    // An archive without its checksum is not a finished transfer.
    job.m_Message = std::strerror(errno);
    m_Dir.Remove(name);
    return BMC_WRITE_FAILED;
  }
  sumTemp.Keep();
  // Make the two renames durable before answering success.
  m_Dir.Sync();
  job.m_Status = BMC_OK;
  job.m_StoredPath = m_Dir.Path() + "/" + name;
  job.m_Sha256 = copied.m_Sha256;
  job.m_Size = copied.m_Bytes;
  job.m_ReadBackFromDevice = copied.m_FromDevice;
  job.m_Finished = true;
  return BMC_OK;
}
