// The two steps of em-host's collection commands: creating the archive
// (create, collect) and transferring it to the BMC (transfer, collect),
// each a request through CHostRun::Exchange followed by what its final
// status means for the operator; and the claim on the tool root that
// keeps two collections apart.
#pragma once

#include "host/emhost/cli/HostRun.h"
#include "host/emhost/cli/ToolReport.h"

#include <cstdint>
#include <string>

struct CCreated {
  double m_Seconds = 0;
  std::string m_ArchivePath;
  std::uint64_t m_Size = 0;
};

struct CTransferred {
  double m_Seconds = 0;
  std::string m_Destination;
  bool m_Present = false;
  std::uint64_t m_Size = 0;
  std::string m_Sha256;
  bool m_Replaced = false;  // an earlier file of the name was replaced
};

// The creation step. -1 when the archive was created (filled into
// created), else the exit status.
int CreateArchive(CHostRun& run, const std::string& what, CProgress& progress, CCreated& created);
// The transfer step with "TO" timeoutSec; -1 on status 0, else the exit status.
int TransferArchive(CHostRun& run, const std::string& what, unsigned int timeoutSec,
                    CProgress& progress, CTransferred& done);
// Before a transfer: the archive's size and age, so that a stale archive is
// noticed before it is sent. Nothing when there is no regular file (the
// module's answer says what is wrong then).
void AnnounceArchive(const std::string& what, CProgress& progress);
// The "TO" of a transfer: --timeout when given, else room for the archive
// on a slow disk.
unsigned int TransferTimeout(const CEmHostOptions& options, bool given);

// create and collect: one collection per tool root at a time (the lock),
// and none while a Korvex runs: the module would delete the running
// collection's archive before it finds out. -1 when the command may go on.
int ClaimCollection(const std::string& what, CCollectionLock& lock);
// Another collection is in the way: said in words, with the process that
// runs when one is found (why empty) or why; returns the exit status.
int ReportBusy(const std::string& what, const std::string& why);

// "destination: PATH (N bytes)" and "sha256: HEX", or that nothing is there.
void PrintDestination(const CTransferred& done, const char* pad);
// The size of the file at path; false when it cannot be read.
bool FileSize(const std::string& path, std::uint64_t& size);
