// Status meanings for em-host's messages, read from the protocol's status
// table so that they cannot drift from the README or the module.
#include "host/emhost/cli/StatusText.h"

#include "module/Protocol.h"

std::string StatusMeaning(unsigned int status, EmJob job) {
  const korvex::StatusMeaning* meaning = korvex::FindStatusMeaning(status);
  if (meaning == nullptr) return "unknown status";
  if (job == EmJob::kCreate && meaning->m_CreatePhrase != nullptr) return meaning->m_CreatePhrase;
  if (job == EmJob::kTransfer && meaning->m_TransferPhrase != nullptr) {
    return meaning->m_TransferPhrase;
  }
  return meaning->m_Phrase;
}

std::string StatusLine(unsigned int status, EmJob job) {
  return "status " + std::to_string(status) + ": " + StatusMeaning(status, job);
}
