// The facts of the request protocol shared by the module and em-host: the
// opcodes, the statuses with their meanings, and the names of files, keys
// and processes. The module, em-host's messages, the BMC stand-in's answers
// and the README's status table all come from here.
#pragma once

#include <cstddef>

namespace korvex {

// Request opcodes of the module's family, and the HTI module's file transfer.
constexpr unsigned int kOpcodeFamilyMask = 0xFFFFFFF0u;
constexpr unsigned int kOpcodeFamily = 0x3400u;
constexpr unsigned int kOpcodeIsInstalled = 0x3400u;
constexpr unsigned int kOpcodeCreateArchive = 0x3401u;
constexpr unsigned int kOpcodeTransferArchive = 0x3402u;
constexpr unsigned int kOpcodeHtiFileTransfer = 0xF052u;
constexpr unsigned int kKorvexFileType = 2;  // "FileType" of a Korvex archive

// The module keeps the low 16 bits of a request's "TO" (seconds): the
// largest time limit a request can carry.
constexpr unsigned int kTimeoutMask = 0xFFFFu;

// Cabinet number that addresses every cabinet.
constexpr unsigned int kAllCabinets = 0xFFFFFFFFu;

// Status values written into "ST". 7 to 12 are the file transfer's, which
// the module passes on as the transfer's final status.
enum Status : unsigned int {
  kStatusDone = 0,
  kStatusTaken = 1,  // ModuleRequest did not handle the request
  kStatusNoArchive = 3,
  kStatusToolRunning = 5,
  kStatusJobFailed = 6,
  kStatusBmcBadRequest = 7,
  kStatusBmcNameRefused = 8,
  kStatusBmcSourceUnreadable = 9,
  kStatusBmcNoSpace = 10,
  kStatusBmcTimedOut = 11,
  kStatusBmcWriteFailed = 12,
  kStatusException = 13,
  kStatusOtherCabinet = 20,
  kStatusQueued = 22,
};

// What a status means. m_Text is the README's status table, word for word;
// the phrases are how em-host says it to whoever ran a job, per job where
// the job changes what the status means (null: m_Phrase holds for it too).
struct StatusMeaning {
  unsigned int m_Status;
  const char* m_Text;
  const char* m_Phrase;
  const char* m_CreatePhrase;
  const char* m_TransferPhrase;
};
extern const StatusMeaning kStatusMeanings[];
extern const std::size_t kStatusMeaningCount;
// The record of status, nullptr for a status the protocol does not have.
const StatusMeaning* FindStatusMeaning(unsigned int status);
// The meaning of status, nullptr for a status the protocol does not have.
const char* MeaningOf(unsigned int status);

// Setup action that cleans up the archives.
constexpr unsigned int kSetupActionCleanup = 4;

// Files, keys and processes.
constexpr const char* kProductName = "Korvex";      // product root in the configuration store
constexpr const char* kSetupKey = "Setup";          // key under the product root
constexpr const char* kFileRootValue = "FileRoot";  // value: the tool's installation root
constexpr const char* kExecutableName = "Korvex";   // the tool, in the installation root
constexpr const char* kArchiveName = "Korvex_Data.zip";
constexpr const char* kDataDirectory = "/var/log/Korvex";
constexpr const char* kToolProcessName = "Korvex";

}  // namespace korvex
