// The status table: what each status written into "ST" means, once. The
// README's status table, em-host's messages and the BMC stand-in's answers
// are all read from here; a test holds the README to it.
#include "module/Protocol.h"

namespace korvex {

const StatusMeaning kStatusMeanings[] = {
    {kStatusDone, "done", "done", nullptr, nullptr},
    {kStatusTaken, "the module did not handle the request (unknown opcode)",
     "the module did not handle the request", nullptr, nullptr},
    {kStatusNoArchive, "there is no archive to transfer",
     "there is no Korvex archive to transfer (create one first)", nullptr, nullptr},
    {kStatusToolRunning, "another Korvex collection is already running (em-host exits 75)",
     "another Korvex collection is already running", nullptr, nullptr},
    {kStatusJobFailed,
     "the job failed: the tool could not run, failed, was stopped or left no archive; or the "
     "switch is shutting down",
     "the job could not be done",
     "the archive was not created (the tool could not run, failed, was stopped, or left no "
     "archive, or the switch is shutting down)",
     "the transfer was not started (the switch is shutting down, or no switch)"},
    {kStatusBmcBadRequest,
     "BMC stand-in: malformed file-transfer request (not "
     "`{\"FileType\":2,\"LocalFilePath\":\xE2\x80\xA6,\"BmcFilePath\":\xE2\x80\xA6}`)",
     "the BMC refused the file-transfer request as malformed", nullptr, nullptr},
    {kStatusBmcNameRefused,
     "BMC stand-in: file name refused (empty, absolute, `.`, over 200 bytes, or holding `..`, "
     "`/`, `\\` or a control character)",
     "the BMC refused the file name (empty, absolute, or containing \"..\" or \"/\")", nullptr,
     nullptr},
    {kStatusBmcSourceUnreadable,
     "BMC stand-in: the archive cannot be read, or is not a regular file (a symbolic link, FIFO, "
     "device, socket or directory; the message names which)",
     "the BMC could not read the archive", nullptr, nullptr},
    {kStatusBmcNoSpace, "BMC stand-in: not enough free space in the BMC directory",
     "the BMC directory has not enough free space", nullptr, nullptr},
    {kStatusBmcTimedOut, "BMC stand-in: not done within the request's \"TO\" seconds",
     "the BMC transfer did not finish within its time limit", nullptr, nullptr},
    {kStatusBmcWriteFailed,
     "BMC stand-in: the BMC directory cannot be written, or the copy did not verify",
     "the BMC could not store the file (directory missing or not writable, or the copy did not "
     "verify)",
     nullptr, nullptr},
    {kStatusException, "the module hit an exception while taking the request",
     "the module hit an exception while taking the request", nullptr, nullptr},
    {kStatusOtherCabinet, "the request is meant for another server cabinet",
     "the request is meant for another server cabinet", nullptr, nullptr},
    {kStatusQueued,
     "queued, the answer follows; as a transfer's final status: the file transfer gave no answer",
     "the request was queued and its answer follows later", nullptr,
     "the BMC file transfer gave no answer"},
};

const std::size_t kStatusMeaningCount = sizeof(kStatusMeanings) / sizeof(kStatusMeanings[0]);

const StatusMeaning* FindStatusMeaning(unsigned int status) {
  for (std::size_t i = 0; i < kStatusMeaningCount; ++i) {
    if (kStatusMeanings[i].m_Status == status) return &kStatusMeanings[i];
  }
  return nullptr;
}

const char* MeaningOf(unsigned int status) {
  const StatusMeaning* meaning = FindStatusMeaning(status);
  return meaning != nullptr ? meaning->m_Text : nullptr;
}

}  // namespace korvex
