// The status phrases em-host prints for a final status, per job.
#include "host/emhost/cli/StatusText.h"

#include <gtest/gtest.h>

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
