// em-host's words for a final status, read from the protocol's status table:
// where the job changes what a status means, each job gets its own phrase.
#include "host/emhost/cli/StatusText.h"

#include <gtest/gtest.h>

namespace {

TEST(EmHostStatusText, Status6SaysWhatFailedForEachJob) {
  EXPECT_EQ(StatusMeaning(6, EmJob::kCreate),
            "the archive was not created (the tool could not run, failed, was stopped, or left "
            "no archive, or the switch is shutting down)");
  EXPECT_EQ(StatusMeaning(6, EmJob::kTransfer),
            "the transfer was not started (the switch is shutting down, or no switch)");
  EXPECT_EQ(StatusMeaning(6, EmJob::kQuery), "the job could not be done");
}

TEST(EmHostStatusText, Status22IsNoAnswerOnlyForATransfer) {
  EXPECT_EQ(StatusMeaning(22, EmJob::kTransfer), "the BMC file transfer gave no answer");
  EXPECT_EQ(StatusMeaning(22, EmJob::kCreate),
            "the request was queued and its answer follows later");
  EXPECT_EQ(StatusMeaning(22, EmJob::kQuery),
            "the request was queued and its answer follows later");
}

TEST(EmHostStatusText, EveryOtherStatusReadsTheSameForEveryJob) {
  const struct {
    unsigned int m_Status;
    const char* m_Text;
  } expected[] = {
      {0, "done"},
      {1, "the module did not handle the request"},
      {7, "the BMC refused the file-transfer request as malformed"},
      {9, "the BMC could not read the archive"},
      {10, "the BMC directory has not enough free space"},
      {11, "the BMC transfer did not finish within its time limit"},
      {12,
       "the BMC could not store the file (directory missing or not writable, or the copy did "
       "not verify)"},
      {13, "the module hit an exception while taking the request"},
  };
  for (const auto& entry : expected) {
    for (EmJob job : {EmJob::kQuery, EmJob::kCreate, EmJob::kTransfer}) {
      EXPECT_EQ(StatusMeaning(entry.m_Status, job), entry.m_Text) << entry.m_Status;
    }
  }
}

TEST(EmHostStatusText, AStatusOutsideTheProtocolIsUnknown) {
  for (unsigned int status : {2u, 4u, 14u, 21u, 23u, ~0u}) {
    EXPECT_EQ(StatusMeaning(status, EmJob::kTransfer), "unknown status") << status;
  }
}

TEST(EmHostStatusText, NamesTheStatusAndItsMeaning) {
  EXPECT_EQ(StatusLine(5, EmJob::kCreate),
            "status 5: another Korvex collection is already running");
  EXPECT_EQ(StatusLine(3, EmJob::kTransfer),
            "status 3: there is no Korvex archive to transfer (create one first)");
  EXPECT_EQ(StatusLine(20, EmJob::kQuery),
            "status 20: the request is meant for another server cabinet");
  EXPECT_EQ(StatusLine(8, EmJob::kTransfer),
            "status 8: the BMC refused the file name (empty, absolute, or containing \"..\" or "
            "\"/\")");
  EXPECT_EQ(StatusLine(22, EmJob::kTransfer), "status 22: the BMC file transfer gave no answer");
  EXPECT_EQ(StatusLine(99, EmJob::kCreate), "status 99: unknown status");
}

}  // namespace
