// serve's bookkeeping of requests whose reply may still come.
#include "host/emhost/serve/PendingRequests.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

TEST(EmHostPendingRequests, AnsweredAndUnanswerableRequestsAreForgotten) {
  CPendingRequests pending;
  // Requests answered in place (queries) are forgotten at their ack.
  for (int i = 0; i < 100000; ++i) {
    const std::uint64_t tag = pending.Add("1");
    pending.Acknowledged(tag, false);
  }
  EXPECT_EQ(pending.Size(), 0u);

  const std::uint64_t a = pending.Add("\"a\"");
  pending.Acknowledged(a, true);
  const std::uint64_t b = pending.Add("\"b\"");
  pending.Acknowledged(b, true);
  const std::uint64_t c = pending.Add("\"c\"");
  pending.Acknowledged(c, true);
  EXPECT_EQ(pending.Size(), 3u);
  EXPECT_EQ(pending.Waiting(), 3u);

  // b answered: a, still waiting before it, can no longer be answered.
  std::string id;
  ASSERT_TRUE(pending.IdForReply(b, id));
  EXPECT_EQ(id, "\"b\"");
  pending.Replied(b);
  EXPECT_EQ(pending.Size(), 1u);
  EXPECT_EQ(pending.Waiting(), 1u);
  std::string none = "untouched";
  EXPECT_FALSE(pending.IdForReply(a, none));
  EXPECT_EQ(none, "untouched");

  // Stop: nothing is answered afterwards.
  pending.DropAll();
  EXPECT_EQ(pending.Size(), 0u);
  EXPECT_EQ(pending.Waiting(), 0u);
  EXPECT_FALSE(pending.IdForReply(c, none));
}

TEST(EmHostPendingRequests, AReplyBeforeItsAckWaitsForTheAck) {
  CPendingRequests pending;
  const std::uint64_t tag = pending.Add("7");
  std::string id;
  std::thread replier([&] {
    pending.IdForReply(tag, id);
    pending.Replied(tag);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(id, "");  // still waiting for the ack
  pending.Acknowledged(tag, true);
  replier.join();
  EXPECT_EQ(id, "7");
  EXPECT_EQ(pending.Size(), 0u);
  EXPECT_EQ(pending.Waiting(), 0u);
}
