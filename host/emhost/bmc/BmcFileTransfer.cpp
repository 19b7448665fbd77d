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

using korvex::kStatusDone;

// Room kept free beyond the file itself: the checksum file and directory
// entries of the two renames.
constexpr std::uint64_t kSpaceReserve = 4096;
constexpr std::size_t kMaxNameLength = 200;
// Internal result of a copy the switch gave up on; never answered.
constexpr unsigned int kAbandoned = 0xFFFFFFFFu;

bool WriteAll(int fd, const char* data, std::size_t length) {
  while (length > 0) {
    const ssize_t done = KORVEX_RETRY(::write(fd, data, length));
    if (done < 0) return false;
    data += done;
    length -= static_cast<std::size_t>(done);
  }
  return true;
}

unsigned int SpaceOr(int error, unsigned int otherwise) {
  return error == ENOSPC || error == EDQUOT ? korvex::kStatusBmcNoSpace : otherwise;
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
      return kStatusDone;
    case CopyOutcome::kReadFailed:
      return korvex::kStatusBmcSourceUnreadable;
    case CopyOutcome::kNoSpace:
      return korvex::kStatusBmcNoSpace;
    case CopyOutcome::kStopped:
      return kAbandoned;
    default:
      return korvex::kStatusBmcWriteFailed;
  }
}

std::string Errno() { return std::strerror(errno); }

// One request's way into the BMC directory, step by step: the free space,
// a hidden temporary copy, its verification, the checksum file beside it,
// and the two renames that make both visible at once. Each step answers
// kStatusDone to go on, or the status to answer (kAbandoned: none). The
// temporary entries are removed when this goes, unless renamed.
class CStoring {
 public:
  CStoring(const CBmcDirectory& dir, const CCopySettings& settings,
           const CBmcTransferRequest& request, CBmcTransferJob& job)
      : m_Dir(dir),
        m_Settings(settings),
        m_Request(request),
        m_Job(job),
        m_Deadline(Clock::now() + std::chrono::seconds(request.m_TimeoutSec)),
        m_Temp(dir),
        m_SumTemp(dir) {}

  unsigned int Run(int source) {
    struct stat info {};
    if (::fstat(source, &info) != 0) return Fail(korvex::kStatusBmcSourceUnreadable, Errno());
    const std::uint64_t size = static_cast<std::uint64_t>(info.st_size);
    m_Job.m_Progress.m_Total.store(size, std::memory_order_relaxed);
    unsigned int status = CreateTarget(size);
    CCopyResult copied;
    if (status == kStatusDone) status = CopyFrom(source, copied);
    if (status == kStatusDone) status = WriteChecksum(copied.m_Sha256);
    if (status == kStatusDone) status = Publish(copied);
    return status;
  }

  // Records why, for the answer's message; status, for the caller to return.
  unsigned int Fail(unsigned int status, const std::string& why) {
    std::lock_guard<std::mutex> lock(m_Job.m_Mutex);
    m_Job.m_Message = why;
    return status;
  }

 private:
  using Clock = std::chrono::steady_clock;

  // "TO" 0 sets no limit of its own.
  bool Overdue() const { return m_Request.m_TimeoutSec != 0 && Clock::now() >= m_Deadline; }
  unsigned int TimedOut() { return Fail(korvex::kStatusBmcTimedOut, "the time limit ran out"); }

  unsigned int CreateTarget(std::uint64_t size) {
    std::uint64_t available = 0;
    if (!m_Dir.FreeBytes(available)) return Fail(korvex::kStatusBmcWriteFailed, Errno());
    if (available < size + kSpaceReserve) {
      return Fail(korvex::kStatusBmcNoSpace,
                  std::to_string(size) + " bytes needed, " + std::to_string(available) + " free");
    }
    std::string tempName;
    m_Target.Reset(m_Dir.CreateTemp(m_Request.m_BmcName, tempName));
    if (!m_Target.Valid()) {
      return Fail(SpaceOr(errno, korvex::kStatusBmcWriteFailed),
                  "cannot create a file in the BMC directory: " + Errno());
    }
    m_Temp.Adopt(tempName);
    // Large copies (and all of them when the device read-back is asked
    // for) bypass the page cache; where the file system offers no direct
    // I/O the page cache it is.
    if (m_Settings.m_ReadBackFromDevice || size >= m_Settings.m_DirectFromBytes) {
      const int flags = ::fcntl(m_Target.Get(), F_GETFL);
      if (flags >= 0) ::fcntl(m_Target.Get(), F_SETFL, flags | O_DIRECT);
    }
    return kStatusDone;
  }

  unsigned int CopyFrom(int source, CCopyResult& copied) {
    const std::function<bool()> stop = [this] { return m_Job.Cancelled() || Overdue(); };
    copied = CopyVerified(source, m_Target.Get(), -1, m_Settings, stop, &m_Job.m_Progress);
    if (copied.m_Outcome == CopyOutcome::kStopped) {
      return m_Job.Cancelled() ? kAbandoned : TimedOut();
    }
    if (copied.m_Outcome != CopyOutcome::kDone) {
      return Fail(CopyStatus(copied.m_Outcome), copied.m_Why);
    }
    // The copy was created for its owner only; a stored file is readable
    // like any other file the BMC directory receives.
    if (::fchmod(m_Target.Get(), 0644) != 0 || KORVEX_RETRY(::fsync(m_Target.Get())) != 0) {
      return Fail(korvex::kStatusBmcWriteFailed, Errno());
    }
    if (m_Job.Cancelled()) return kAbandoned;
    return Overdue() ? TimedOut() : kStatusDone;
  }

  // The checksum line, two spaces between digest and name, as sha256sum
  // writes it.
  unsigned int WriteChecksum(const std::string& digest) {
    std::string sumTempName;
    m_Sum.Reset(m_Dir.CreateTemp(m_Request.m_BmcName + ".sha256", sumTempName));
    if (!m_Sum.Valid()) return Fail(SpaceOr(errno, korvex::kStatusBmcWriteFailed), Errno());
    m_SumTemp.Adopt(sumTempName);
    const std::string line = digest + "  " + m_Request.m_BmcName + "\n";
    if (!WriteAll(m_Sum.Get(), line.data(), line.size()) || ::fchmod(m_Sum.Get(), 0644) != 0 ||
        KORVEX_RETRY(::fsync(m_Sum.Get())) != 0) {
      return Fail(SpaceOr(errno, korvex::kStatusBmcWriteFailed), Errno());
    }
    return kStatusDone;
  }

  // The two renames, under the job's lock so that a cancel either comes
  // before them (nothing appears) or after the answer is settled.
  unsigned int Publish(const CCopyResult& copied) {
    const std::string& name = m_Request.m_BmcName;
    std::lock_guard<std::mutex> lock(m_Job.m_Mutex);
    if (m_Job.m_Cancelled) return kAbandoned;
    bool replaced = false;
    if (!m_Dir.Replace(m_Temp.Name(), name, replaced)) {
      m_Job.m_Message = Errno();
      return korvex::kStatusBmcWriteFailed;
    }
    m_Temp.Keep();
    if (!m_Dir.Rename(m_SumTemp.Name(), name + ".sha256")) {
      // An archive without its checksum is not a finished transfer.
      m_Job.m_Message = Errno();
      m_Dir.Remove(name);
      return korvex::kStatusBmcWriteFailed;
    }
    m_SumTemp.Keep();
    // Make the two renames durable before answering success.
    m_Dir.Sync();
    m_Job.m_Status = kStatusDone;
    m_Job.m_StoredPath = m_Dir.Path() + "/" + name;
    m_Job.m_Sha256 = copied.m_Sha256;
    m_Job.m_Size = copied.m_Bytes;
    m_Job.m_ReadBackFromDevice = copied.m_FromDevice;
    m_Job.m_Replaced = replaced;
    m_Job.m_Finished = true;
    return kStatusDone;
  }

  const CBmcDirectory& m_Dir;
  const CCopySettings& m_Settings;
  const CBmcTransferRequest& m_Request;
  CBmcTransferJob& m_Job;
  const Clock::time_point m_Deadline;
  // The descriptors before the entries: an entry is removed before its
  // descriptor is closed, as it was created after it was opened.
  korvex::CFd m_Target;
  korvex::CFd m_Sum;
  CTempEntry m_Temp;
  CTempEntry m_SumTemp;
};

}  // namespace

korvex::CFd OpenRegularSource(const std::string& path, std::string& why) {
  // O_NONBLOCK: opening a FIFO without a writer (or a device that waits for
  // a carrier) must not hang the transfer; it is cleared again below.
  korvex::CFd fd(
      KORVEX_RETRY(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
  if (!fd.Valid()) {
    why = path + (errno == ELOOP ? std::string(" is a symbolic link (not followed)")
                                 : ": " + std::string(std::strerror(errno)));
    return korvex::CFd();
  }
  struct stat info {};
  if (::fstat(fd.Get(), &info) != 0) {
    why = path + ": " + std::strerror(errno);
    return korvex::CFd();
  }
  if (!S_ISREG(info.st_mode)) {
    why = path + " is " + KindOf(info.st_mode) + ", not a regular file";
    return korvex::CFd();
  }
  const int flags = ::fcntl(fd.Get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    why = path + ": " + std::strerror(errno);
    return korvex::CFd();
  }
  return fd;
}

CBmcFileTransfer::CBmcFileTransfer(std::string bmcDir, CCopySettings settings)
    : m_Dir(std::move(bmcDir)), m_Settings(settings) {}

unsigned int CBmcFileTransfer::ParseRequest(const SipJson& request, CBmcTransferRequest& out) {
  const JsonValue* data = request.FindCmdMember(request.m_CmdIndex, "DA");
  if (data == nullptr || !data->IsObject()) return korvex::kStatusBmcBadRequest;
  const JsonValue::ConstMemberIterator type = data->FindMember("FileType");
  const JsonValue::ConstMemberIterator local = data->FindMember("LocalFilePath");
  const JsonValue::ConstMemberIterator bmc = data->FindMember("BmcFilePath");
  if (type == data->MemberEnd() || !type->value.IsUint() || local == data->MemberEnd() ||
      !local->value.IsString() || bmc == data->MemberEnd() || !bmc->value.IsString()) {
    return korvex::kStatusBmcBadRequest;
  }
  if (type->value.GetUint() != korvex::kKorvexFileType) return korvex::kStatusBmcBadRequest;
  unsigned int timeout = 0;
  if (const JsonValue* to = request.FindCmdMember(request.m_CmdIndex, "TO")) {
    if (!to->IsUint()) return korvex::kStatusBmcBadRequest;
    timeout = to->GetUint();
  }
  out.m_FileType = type->value.GetUint();
  out.m_LocalPath.assign(local->value.GetString(), local->value.GetStringLength());
  out.m_BmcName.assign(bmc->value.GetString(), bmc->value.GetStringLength());
  out.m_TimeoutSec = timeout;
  return kStatusDone;
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
  unsigned int status = korvex::kStatusBmcWriteFailed;
  try {
    status = Copy(request, job);
  } catch (const std::exception& e) {
    status = korvex::kStatusBmcWriteFailed;  // e.g. no memory, libcrypto failure
    std::lock_guard<std::mutex> lock(job.m_Mutex);
    job.m_Message = e.what();
  }
  std::lock_guard<std::mutex> lock(job.m_Mutex);
  if (!job.m_Finished) {
    job.m_Status = status == kAbandoned ? korvex::kStatusBmcTimedOut : status;
    job.m_Finished = true;
  }
  job.m_Done.notify_all();
}

unsigned int CBmcFileTransfer::Copy(const CBmcTransferRequest& request,
                                    CBmcTransferJob& job) const {
  // The time limit counts from here.
  CStoring storing(m_Dir, m_Settings, request, job);
  if (!NameAcceptable(request.m_BmcName)) return korvex::kStatusBmcNameRefused;
  if (!m_Dir.Valid()) {
    return storing.Fail(korvex::kStatusBmcWriteFailed, "the BMC directory " + m_Dir.Error());
  }
  std::string why;
  const korvex::CFd source = OpenRegularSource(request.m_LocalPath, why);
  if (!source.Valid()) return storing.Fail(korvex::kStatusBmcSourceUnreadable, why);
  return storing.Run(source.Get());
}
