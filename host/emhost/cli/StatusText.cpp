// Status meanings for em-host's messages.
#include "host/emhost/cli/StatusText.h"

#include "module/Protocol.h"

std::string StatusMeaning(unsigned int status, EmJob job) {
  switch (status) {
    case 0:
      return "done";
    case 1:
      return "the module did not handle the request";
    case 3:
      return "there is no Korvex archive to transfer (create one first)";
    case 5:
      return "another Korvex collection is already running";
    case 6:
      if (job == EmJob::kCreate) {
        return "the archive was not created (the tool could not run, failed, was stopped, or "
               "left no archive, or the switch is shutting down)";
      }
      if (job == EmJob::kTransfer) {
        return "the transfer was not started (the switch is shutting down, or no switch)";
      }
      return "the job could not be done";
    case korvex::kStatusBmcBadRequest:
      return "the BMC refused the file-transfer request as malformed";
    case korvex::kStatusBmcNameRefused:
      return "the BMC refused the file name (empty, absolute, or containing \"..\" or \"/\")";
    case korvex::kStatusBmcSourceUnreadable:
      return "the BMC could not read the archive";
    case korvex::kStatusBmcNoSpace:
      return "the BMC directory has not enough free space";
    case korvex::kStatusBmcTimedOut:
      return "the BMC transfer did not finish within its time limit";
    case korvex::kStatusBmcWriteFailed:
      return "the BMC could not store the file (directory missing or not writable, or the copy "
             "did not verify)";
    case 13:
      return "the module hit an exception while taking the request";
    case 20:
      return "the request is meant for another server cabinet";
    case 22:
      if (job == EmJob::kTransfer) return "the BMC file transfer gave no answer";
      return "the request was queued and its answer follows later";
    default:
      return "unknown status";
  }
}

std::string StatusLine(unsigned int status, EmJob job) {
  return "status " + std::to_string(status) + ": " + StatusMeaning(status, job);
}
