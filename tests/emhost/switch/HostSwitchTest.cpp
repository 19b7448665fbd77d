// Tests of em-host's switch on its own: the reply tags, the service type,
// and the routing of a module's requests to the handler registered for
// their opcode, with fake handlers in place of the BMC stand-in.
#include "frame/ExtensionModule.h"
#include "host/emhost/switch/HostSwitch.h"
#include "message/SipJson.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

// A module that answers requests by status 22 and remembers the message.
class CTagModule : public CExtensionModule {
 public:
  int ModuleRequest(SipJson& request) override {
    m_Extra = request.m_pszExtra != nullptr ? request.m_pszExtra : "(null)";
    request.SetStatus(22);
    return 1;
  }
  std::string m_Extra;
};

// Records the replies and routed requests the switch reports, in order.
class CRecordingListener : public CISwitchListener {
 public:
  void OnReply(std::uint64_t tag, SipJson& message) override {
    m_Replies.push_back(std::to_string(tag) + " " + message.ToJson());
  }
  void OnRouted(unsigned int opcode, SipJson& request) override {
    m_Events.push_back("routed " + std::to_string(opcode) + " " + request.ToJson());
  }
  std::vector<std::string> m_Replies;
  std::vector<std::string> m_Events;
};

// A handler that answers with a fixed result and status, and records what
// reached it (into a log it may share with a listener, to show the order).
class CFakeHandler : public CIRequestHandler {
 public:
  CFakeHandler(std::string name, int result, unsigned int status, std::vector<std::string>& log)
      : m_Name(std::move(name)), m_Result(result), m_Status(status), m_Log(log) {}
  int Serve(SipJson& request, unsigned int timeoutMs) override {
    m_Log.push_back(m_Name + " serves " + std::to_string(request.OpCode()) + " within " +
                    std::to_string(timeoutMs));
    if (m_Result == 1) request.SetStatus(m_Status);
    return m_Result;
  }
  void Stop() override { m_Log.push_back(m_Name + " stop"); }
  void Allow() override { m_Log.push_back(m_Name + " allow"); }

 private:
  std::string m_Name;
  int m_Result;
  unsigned int m_Status;
  std::vector<std::string>& m_Log;
};

std::string Request(unsigned int opcode) {
  return "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":" + std::to_string(opcode) + "}]}}";
}

std::string Answered(unsigned int opcode, unsigned int status) {
  return "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":" + std::to_string(opcode) +
         ",\"ST\":" + std::to_string(status) + "}]}}";
}

// Sends a request of opcode through the switch as a module does; its
// result, and the message as it came back in text.
int Send(CHostSwitch& hostSwitch, unsigned int opcode, unsigned int timeoutMs, std::string& after) {
  SipJson request;
  const std::string text = Request(opcode);
  EXPECT_TRUE(request.FromJson(text.data(), text.size()));
  const int result = hostSwitch.AsyncRequest(nullptr, request, timeoutMs);
  after = request.ToJson();
  return result;
}

// Sends a request of opcode that no handler answers: result 0, and the
// message comes back as it went out.
void ExpectNoAnswer(CHostSwitch& hostSwitch, unsigned int opcode) {
  std::string after;
  EXPECT_EQ(Send(hostSwitch, opcode, 5000, after), 0);
  EXPECT_EQ(after, Request(opcode));
}

}  // namespace

TEST(EmHostSwitch, DeliverTagsTheRequestAndTheCopyCarriesTheTagBack) {
  CHostSwitch hostSwitch(5);
  CRecordingListener listener;
  hostSwitch.SetListener(&listener);
  CTagModule module;
  SipJson request;
  ASSERT_EQ(hostSwitch.Deliver(module, request, 41), 1);
  EXPECT_EQ(module.m_Extra, "em-host:41");
  EXPECT_EQ(CHostSwitch::TagOf(request), 41u);

  SipJson queued(request);  // what the module's queue keeps
  queued.SetStatus(0);
  EXPECT_EQ(hostSwitch.SendReply(&module, queued), 1);
  ASSERT_EQ(listener.m_Replies.size(), 1u);
  EXPECT_EQ(listener.m_Replies[0], "41 {\"SIP\":{\"V\":1,\"CMD\":[{\"ST\":0}]}}");
  hostSwitch.SetListener(nullptr);
}

TEST(EmHostSwitch, ReplyWithoutOurTagIsReportedAsTagZero) {
  CHostSwitch hostSwitch(5);
  CRecordingListener listener;
  hostSwitch.SetListener(&listener);
  CTagModule module;
  SipJson stray;
  EXPECT_EQ(hostSwitch.SendReply(&module, stray), 0);
  stray.m_pszExtra = ::strdup("someone-else:3");
  EXPECT_EQ(hostSwitch.SendReply(&module, stray), 0);
  EXPECT_EQ(listener.m_Replies, (std::vector<std::string>{"0 {\"SIP\":{\"V\":1,\"CMD\":[]}}",
                                                          "0 {\"SIP\":{\"V\":1,\"CMD\":[]}}"}));
  hostSwitch.SetListener(nullptr);
}

TEST(EmHostSwitch, ServiceTypeIsTheConfiguredOne) {
  CHostSwitch agentless(5);
  CHostSwitch other(7);
  EXPECT_EQ(agentless.GetServiceType(), 5u);
  EXPECT_EQ(other.GetServiceType(), 7u);
}

TEST(EmHostSwitch, OtherOpcodesFindNoModule) {
  std::vector<std::string> log;
  CFakeHandler transfer("transfer", 1, 0, log);
  CHostSwitch hostSwitch(5);
  hostSwitch.Register(0xF052, &transfer);
  CRecordingListener listener;
  hostSwitch.SetListener(&listener);
  ExpectNoAnswer(hostSwitch, 1234);
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(listener.m_Events.empty());
  hostSwitch.SetListener(nullptr);
}

TEST(EmHostSwitch, ARegisteredHandlerGetsTheRequestAfterTheListenerHearsOfIt) {
  CHostSwitch hostSwitch(5);
  CRecordingListener listener;
  CFakeHandler handler("h", 1, 9, listener.m_Events);
  hostSwitch.Register(0xF052, &handler);
  hostSwitch.SetListener(&listener);
  std::string after;
  EXPECT_EQ(Send(hostSwitch, 0xF052, 5000, after), 1);
  EXPECT_EQ(after, Answered(0xF052, 9));
  // The listener sees the request as it went out, before the handler acts;
  // the handler gets the sender's time-out unchanged.
  EXPECT_EQ(listener.m_Events, (std::vector<std::string>{"routed 61522 " + Request(0xF052),
                                                         "h serves 61522 within 5000"}));
  hostSwitch.SetListener(nullptr);
}

TEST(EmHostSwitch, AHandlerThatDoesNotAnswerLeavesTheRequestAsItWas) {
  std::vector<std::string> log;
  CFakeHandler silent("silent", 0, 0, log);
  CHostSwitch hostSwitch(5);
  hostSwitch.Register(0xF052, &silent);
  std::string after;
  EXPECT_EQ(Send(hostSwitch, 0xF052, 100, after), 0);
  EXPECT_EQ(after, Request(0xF052));
  EXPECT_EQ(log, (std::vector<std::string>{"silent serves 61522 within 100"}));
}

TEST(EmHostSwitch, AnUnregisteredOpcodeIsAnsweredAsAbsent) {
  std::vector<std::string> log;
  CFakeHandler handler("h", 1, 0, log);
  CHostSwitch hostSwitch(5);
  CRecordingListener listener;
  hostSwitch.SetListener(&listener);
  // Nothing registered at all.
  ExpectNoAnswer(hostSwitch, 0xF052);
  // Registered, then taken away again.
  hostSwitch.Register(0xF052, &handler);
  hostSwitch.Register(0xF052, nullptr);
  ExpectNoAnswer(hostSwitch, 0xF052);
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(listener.m_Events.empty());
  hostSwitch.SetListener(nullptr);
}

TEST(EmHostSwitch, TwoHandlersForTwoOpcodesEachGetOnlyTheirOwn) {
  std::vector<std::string> log;
  CFakeHandler first("first", 1, 7, log);
  CFakeHandler second("second", 1, 8, log);
  CHostSwitch hostSwitch(5);
  hostSwitch.Register(0xF052, &first);
  hostSwitch.Register(0xF053, &second);
  std::string after;
  EXPECT_EQ(Send(hostSwitch, 0xF053, 1, after), 1);
  EXPECT_EQ(after, Answered(0xF053, 8));
  EXPECT_EQ(Send(hostSwitch, 0xF052, 2, after), 1);
  EXPECT_EQ(after, Answered(0xF052, 7));
  EXPECT_EQ(log, (std::vector<std::string>{"second serves 61523 within 1",
                                           "first serves 61522 within 2"}));

  // A later registration for an opcode replaces the earlier one.
  log.clear();
  hostSwitch.Register(0xF052, &second);
  EXPECT_EQ(Send(hostSwitch, 0xF052, 3, after), 1);
  EXPECT_EQ(after, Answered(0xF052, 8));
  EXPECT_EQ(log, (std::vector<std::string>{"second serves 61522 within 3"}));
}

TEST(EmHostSwitch, StopAndAllowReachEveryHandlerOnce) {
  std::vector<std::string> log;
  CFakeHandler first("first", 1, 0, log);
  CFakeHandler second("second", 1, 0, log);
  CHostSwitch hostSwitch(5);
  hostSwitch.StopHandlers();  // none registered: nothing to reach
  EXPECT_TRUE(log.empty());
  // first serves two opcodes, and still hears each call once.
  hostSwitch.Register(0xF052, &first);
  hostSwitch.Register(0xF054, &first);
  hostSwitch.Register(0xF053, &second);
  hostSwitch.StopHandlers();
  std::sort(log.begin(), log.end());
  EXPECT_EQ(log, (std::vector<std::string>{"first stop", "second stop"}));
  log.clear();
  hostSwitch.AllowHandlers();
  std::sort(log.begin(), log.end());
  EXPECT_EQ(log, (std::vector<std::string>{"first allow", "second allow"}));
}
