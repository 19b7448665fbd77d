// Unit tests of request dispatch (ModuleRequest on the switch's thread) and
// of task execution (OnTaskExecution on the worker thread).
#include "host/HostControl.h"
#include "message/SipJson.h"
#include "module/EM_KORVEX.h"
#include "tests/module/ModuleTestSupport.h"
#include "tests/module/ModuleUnitFixture.h"
#include "tests/support/RecordingSwitch.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

using namespace korvex_test;

namespace {

const char* kInserted = "\nCTaskSerializer     : Task with priority 0 inserted into task queue!";
const char* kRaised = "\nCTaskSerializer     : Task at level 0 raised";

// A module whose GetName throws on its n-th call: GetName is what the
// request and return traces call, so this puts an exception exactly before
// the cabinet test (first call) or after the dispatch (second call).
class CThrowingNameModule : public EM_KORVEX {
 public:
  explicit CThrowingNameModule(int throwOnCall) : m_ThrowOnCall(throwOnCall) {}
  const char* GetName() override {
    if (++m_Calls == m_ThrowOnCall) throw std::runtime_error("name unavailable");
    return EM_KORVEX::GetName();
  }

 private:
  int m_ThrowOnCall;
  int m_Calls = 0;
};

// A module that records the queued copies its worker is handed instead of
// running the jobs.
class CRecordingTaskModule : public EM_KORVEX {
 public:
  void OnTaskExecution(SipJson& task, _TaskPriority priority) override {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Tasks.push_back(task.ToJson());
    m_Priorities.push_back(static_cast<int>(priority));
    m_Changed.notify_all();
  }
  bool WaitForTasks(std::size_t count, unsigned int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return m_Tasks.size() >= count; });
  }
  std::vector<std::string> Tasks() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Tasks;
  }
  std::vector<int> Priorities() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Priorities;
  }

 private:
  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  std::vector<std::string> m_Tasks;
  std::vector<int> m_Priorities;
};

}  // namespace

class DispatchTest : public ModuleUnitTest {
 protected:
  // Runs one request through a fresh module (no worker) and returns its
  // result, the message afterwards and the trace of the call.
  struct COutcome {
    int m_Result;
    std::string m_Json;
    std::string m_Trace;
  };
  COutcome Dispatch(const std::string& json, unsigned int installed = 1, int cmdIndex = 0) {
    EM_KORVEX module;
    module.m_Installed = installed;
    SipJson request;
    Load(request, json);
    request.m_CmdIndex = cmdIndex;
    halvane::TakeTrace();
    COutcome outcome;
    outcome.m_Result = module.ModuleRequest(request);
    outcome.m_Trace = halvane::TakeTrace();
    outcome.m_Json = request.ToJson();
    return outcome;
  }
};

// ----- the installation query ---------------------------------------------------

TEST_F(DispatchTest, InstalledQueryForAllCabinetsAnswers1WhenInstalled) {
  CExtensionModule::ServerCabinetNr = 3;
  ExpectTraceAtEveryLevel(
      [&] {
        const COutcome outcome =
            Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295}]}})", 1);
        EXPECT_EQ(1, outcome.m_Result);
        EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295,"ST":0,"DA":1}]}})",
                  outcome.m_Json);
        return outcome.m_Trace;
      },
      [] {
        return std::vector<CLine>{
            {2,
             "\nEM_KORVEX (REQUEST) : OC 0x3400-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat "
             "0x16"},
            {2, "\nEM_KORVEX           : -> Korvex is installed"},
            {2,
             "\nEM_KORVEX (RETURN)  : OC 0x3400-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat "
             "0x00 Data 1"}};
      });
}

TEST_F(DispatchTest, InstalledQueryAnswers0WhenNotInstalled) {
  CExtensionModule::ServerCabinetNr = 3;
  ExpectTraceAtEveryLevel(
      [&] {
        const COutcome outcome = Dispatch(
            R"({"SIP":{"V":1,"CMD":[{"OC":13312,"OI":4,"MI":131077,"CA":4294967295,"DA":7}]}})", 0);
        EXPECT_EQ(1, outcome.m_Result);
        // An existing "DA" is overwritten in place.
        EXPECT_EQ(
            R"({"SIP":{"V":1,"CMD":[{"OC":13312,"OI":4,"MI":131077,"CA":4294967295,"DA":0,"ST":0}]}})",
            outcome.m_Json);
        return outcome.m_Trace;
      },
      [] {
        return std::vector<CLine>{
            {2,
             "\nEM_KORVEX (REQUEST) : OC 0x3400-0x0000 OID 0x0004 CABID -001 MID 0x00020005 Stat "
             "0x16 Data 7"},
            {2, "\nEM_KORVEX           : -> Korvex is NOT installed"},
            {2,
             "\nEM_KORVEX (RETURN)  : OC 0x3400-0x0000 OID 0x0004 CABID -001 MID 0x00020005 Stat "
             "0x00 Data 0"}};
      });
}

// ----- the cabinet test --------------------------------------------------------------

TEST_F(DispatchTest, RequestForAnotherCabinetIsRefusedWith20AndNotQueued) {
  CExtensionModule::ServerCabinetNr = 3;
  ExpectTraceAtEveryLevel(
      [&] {
        const COutcome outcome = Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":7}]}})");
        EXPECT_EQ(0, outcome.m_Result);
        EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":7,"ST":20}]}})", outcome.m_Json);
        return outcome.m_Trace;
      },
      [] {
        // No serializer line: nothing was queued. No return trace.
        return std::vector<CLine>{
            {2,
             "\nEM_KORVEX (REQUEST) : OC 0x3401-0x0000 OID 0x0000 CABID 0007 MID 0x00000000 Stat "
             "0x16"},
            {4, "\nEM_KORVEX           : Request not for server cabinet -> refused"}};
      });
}

TEST_F(DispatchTest, RequestForThisCabinetIsAccepted) {
  CExtensionModule::ServerCabinetNr = 3;
  const COutcome outcome = Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":3}]}})");
  EXPECT_EQ(1, outcome.m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":3,"ST":0,"DA":1}]}})", outcome.m_Json);
}

TEST_F(DispatchTest, RequestWithoutCabinetIsAcceptedOnlyOnCabinet0) {
  CExtensionModule::ServerCabinetNr = 0;
  COutcome outcome = Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":13312}]}})");
  EXPECT_EQ(1, outcome.m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"ST":0,"DA":1}]}})", outcome.m_Json);
  EXPECT_EQ(
      "\nEM_KORVEX (REQUEST) : OC 0x3400-0x0000 OID 0x0000 MID 0x00000000 Stat 0x16"
      "\nEM_KORVEX           : -> Korvex is installed"
      "\nEM_KORVEX (RETURN)  : OC 0x3400-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Data 1",
      outcome.m_Trace);

  CExtensionModule::ServerCabinetNr = 3;
  outcome = Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":13312}]}})");
  EXPECT_EQ(0, outcome.m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"ST":20}]}})", outcome.m_Json);
}

// ----- opcodes the module does not handle ------------------------------------------------

TEST_F(DispatchTest, UnhandledOpcodeOfTheFamilyGets1AndBothTraces) {
  ExpectTraceAtEveryLevel(
      [&] {
        const COutcome outcome =
            Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":13317,"CA":4294967295,"ST":9}]}})");
        EXPECT_EQ(0, outcome.m_Result);
        EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13317,"CA":4294967295,"ST":1}]}})", outcome.m_Json);
        return outcome.m_Trace;
      },
      [] {
        return std::vector<CLine>{
            {2,
             "\nEM_KORVEX (REQUEST) : OC 0x3405-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat "
             "0x09"},
            {2,
             "\nEM_KORVEX (RETURN)  : OC 0x3405-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat "
             "0x01"}};
      });
  for (unsigned int opcode : {0x3403u, 0x340Fu}) {
    const COutcome outcome = Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":)" + std::to_string(opcode) +
                                      R"(,"CA":4294967295}]}})");
    EXPECT_EQ(0, outcome.m_Result) << opcode;
    EXPECT_EQ(2u, CountOf(outcome.m_Trace, "\nEM_KORVEX (")) << outcome.m_Trace;
  }
}

TEST_F(DispatchTest, OpcodeOfAnotherFamilyGets1AndNoTraceAtAll) {
  for (unsigned int opcode : {0x1234u, 0x3410u, 0x33FFu, 0xF052u}) {
    ExpectTraceAtEveryLevel(
        [&] {
          const COutcome outcome = Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":)" +
                                            std::to_string(opcode) + R"(,"CA":4294967295}]}})");
          EXPECT_EQ(0, outcome.m_Result);
          EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":)" + std::to_string(opcode) +
                        R"(,"CA":4294967295,"ST":1}]}})",
                    outcome.m_Json);
          return outcome.m_Trace;
        },
        [] { return std::vector<CLine>{}; });
  }
}

TEST_F(DispatchTest, MissingCurrentCommandIsPaddedAndNotHandled) {
  // Index exactly one beyond the end: a new object carries "ST" 1.
  COutcome outcome = Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295}]}})", 1, 1);
  EXPECT_EQ(0, outcome.m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295},{"ST":1}]}})", outcome.m_Json);
  EXPECT_EQ("", outcome.m_Trace);

  // Two beyond: an object and a null are appended; the null current command
  // takes no status.
  outcome = Dispatch(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295}]}})", 1, 2);
  EXPECT_EQ(0, outcome.m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295},{},null]}})", outcome.m_Json);
  EXPECT_EQ("", outcome.m_Trace);
}

TEST_F(DispatchTest, MessageWithoutEnvelopeIsNotHandled) {
  const COutcome outcome = Dispatch(R"({"X":1})");
  EXPECT_EQ(0, outcome.m_Result);
  EXPECT_EQ("", outcome.m_Trace);
}

// ----- queued requests ------------------------------------------------------------------

TEST_F(DispatchTest, CreationRequestIsQueuedAndAcknowledgedWith22) {
  ExpectTraceAtEveryLevel(
      [&] {
        const COutcome outcome = Dispatch(
            R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":1,"CA":4294967295,"TO":600,"ST":0}]}})");
        EXPECT_EQ(1, outcome.m_Result);
        EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":1,"CA":4294967295,"TO":600,"ST":22}]}})",
                  outcome.m_Json);
        return outcome.m_Trace;
      },
      [] {
        return std::vector<CLine>{
            {2,
             "\nEM_KORVEX (REQUEST) : OC 0x3401-0x0000 OID 0x0001 CABID -001 MID 0x00000000 Stat "
             "0x00"},
            {3, "\n"},
            {2,
             "\nEM_KORVEX           : -> Initiate Korvex archive creation, may take several "
             "minutes (queue this request)"},
            {4, kRaised},
            {5, kInserted},
            {2,
             "\nEM_KORVEX (RETURN)  : OC 0x3401-0x0000 OID 0x0001 CABID -001 MID 0x00000000 Stat "
             "0x16"}};
      });
}

TEST_F(DispatchTest, TransferRequestIsQueuedAndAcknowledgedWith22) {
  ExpectTraceAtEveryLevel(
      [&] {
        const COutcome outcome = Dispatch(
            R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"TO":30,"DA":"bmc.zip"}]}})");
        EXPECT_EQ(1, outcome.m_Result);
        EXPECT_EQ(
            R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"TO":30,"DA":"bmc.zip","ST":22}]}})",
            outcome.m_Json);
        return outcome.m_Trace;
      },
      [] {
        return std::vector<CLine>{
            {2,
             "\nEM_KORVEX (REQUEST) : OC 0x3402-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat "
             "0x16 Data \"bmc.zip\""},
            {3, "\n"},
            {2, "\nEM_KORVEX           : -> Initiate Korvex archive transfer to BMC"},
            {4, kRaised},
            {5, kInserted},
            {2,
             "\nEM_KORVEX (RETURN)  : OC 0x3402-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat "
             "0x16 Data \"bmc.zip\""}};
      });
}

TEST_F(DispatchTest, QueuedCopyCarriesStatus1AndRunsOnTheWorkerAtPriority0) {
  CRecordingTaskModule module;
  module.StartSerialization();
  SipJson create;
  Load(create, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295}]}})");
  SipJson transfer;
  Load(transfer, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"DA":"f"}]}})");
  EXPECT_EQ(1, module.ModuleRequest(create));
  EXPECT_EQ(1, module.ModuleRequest(transfer));
  // The switch's own objects carry 22; changing them does not reach the copies.
  create.SetStatus(99);
  transfer.SetStatus(99);
  ASSERT_TRUE(module.WaitForTasks(2, 30000));
  EXPECT_EQ((std::vector<std::string>{
                R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":1}]}})",
                R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"DA":"f","ST":1}]}})"}),
            module.Tasks());
  EXPECT_EQ((std::vector<int>{0, 0}), module.Priorities());
  EXPECT_EQ(1, module.Stop());
}

TEST_F(DispatchTest, TwentiethCreationRequestWithAFullQueueIsStillAcknowledgedWith22) {
  ExpectTraceAtEveryLevel(
      [&] {
        EM_KORVEX module;  // no worker: the queue only fills
        SipJson request;
        for (int i = 0; i < 19; ++i) {
          Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295}]}})");
          EXPECT_EQ(1, module.ModuleRequest(request));
        }
        Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":20,"CA":4294967295}]}})");
        halvane::TakeTrace();
        EXPECT_EQ(1, module.ModuleRequest(request));
        EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":20,"CA":4294967295,"ST":22}]}})",
                  request.ToJson());
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {2,
             "\nEM_KORVEX (REQUEST) : OC 0x3401-0x0000 OID 0x0014 CABID -001 MID 0x00000000 Stat "
             "0x16"},
            {3, "\n"},
            {2,
             "\nEM_KORVEX           : -> Initiate Korvex archive creation, may take several "
             "minutes (queue this request)"},
            {4, kRaised},
            {1, "\nCTaskSerializer     : ## ERROR! Task queue for priority 0 is full"},
            {2,
             "\nEM_KORVEX (RETURN)  : OC 0x3401-0x0000 OID 0x0014 CABID -001 MID 0x00000000 Stat "
             "0x16"}};
      });
}

TEST_F(DispatchTest, RequestAfterStopIsAcknowledgedWith22ButRefusedByTheSerializer) {
  SetToolRoot(m_Dir.Path());
  WriteTool(m_Dir.Path(), "exit 0");
  EM_KORVEX module;
  ASSERT_EQ(1, module.Start(nullptr, 0));
  ASSERT_EQ(1, module.Stop());
  SipJson request;
  Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295}]}})");
  halvane::TakeTrace();
  EXPECT_EQ(1, module.ModuleRequest(request));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"ST":22}]}})", request.ToJson());
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\nEM_KORVEX           : -> Initiate Korvex archive transfer to BMC", kRaised,
       "\nCTaskSerializer     : Manager locked for Tasks at level 0. Task ignored!",
       "\nEM_KORVEX (RETURN)  : OC 0x3402-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat "
       "0x16"}));
}

// ----- exceptions ------------------------------------------------------------------------

TEST_F(DispatchTest, ExceptionBeforeTheCabinetTestGives13AndResult0) {
  ExpectTraceAtEveryLevel(
      [&] {
        CThrowingNameModule module(1);  // the request trace throws
        SipJson request;
        Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":2,"CA":4294967295}]}})");
        halvane::TakeTrace();
        // The module cannot see the host's level filter: with the switch on
        // it always builds the label, and GetName throws at every level.
        EXPECT_EQ(0, module.ModuleRequest(request));
        EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":2,"CA":4294967295,"ST":13}]}})",
                  request.ToJson());
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {1,
             "\nEM_KORVEX           : ## EXCEPTION! CABID -001: OpCode 0x3401-0x0000 ObjId 0x0002 "
             "Status 0x0D"}};
      });
}

TEST_F(DispatchTest, ExceptionAfterTheDispatchGives13AndResult1) {
  CThrowingNameModule module(2);  // the return trace throws
  SipJson request;
  Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295}]}})");
  halvane::TakeTrace();
  EXPECT_EQ(1, module.ModuleRequest(request));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":13}]}})", request.ToJson());
  EXPECT_EQ(
      "\nEM_KORVEX (REQUEST) : OC 0x3401-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat 0x16"
      "\n"
      "\nEM_KORVEX           : -> Initiate Korvex archive creation, may take several minutes "
      "(queue this request)" +
          std::string(kRaised) + kInserted +
          "\nEM_KORVEX           : ## EXCEPTION! CABID -001: OpCode 0x3401-0x0000 ObjId 0x0000 "
          "Status 0x0D",
      halvane::TakeTrace());
}

TEST_F(DispatchTest, ExceptionOnAnUnhandledOpcodeKeepsResult0) {
  CThrowingNameModule module(2);
  SipJson request;
  Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13320,"CA":4294967295}]}})");
  EXPECT_EQ(0, module.ModuleRequest(request));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13320,"CA":4294967295,"ST":13}]}})", request.ToJson());
}

// ----- task execution ----------------------------------------------------------------------

TEST_F(DispatchTest, TaskWithAnUnhandledOpcodeOnlyTraces) {
  CRecordingSwitch recordingSwitch;
  EM_KORVEX module;
  module.m_pSwitch = &recordingSwitch;
  SetPaths(module);
  ExpectTraceAtEveryLevel(
      [&] {
        SipJson task;
        Load(task, R"({"SIP":{"V":1,"CMD":[{"OC":13315,"CA":4294967295,"ST":1}]}})");
        halvane::TakeTrace();
        module.OnTaskExecution(task, EM_KORVEX::TASK_PRIORITY_0);
        EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13315,"CA":4294967295,"ST":1}]}})", task.ToJson());
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {1,
             "\nEM_KORVEX           : ## ERROR! Unhandled OpCode 0x3403 to be executed in task - "
             "fix this!"}};
      });
  SipJson empty;
  module.OnTaskExecution(empty, EM_KORVEX::TASK_PRIORITY_0);
  EXPECT_EQ(
      "\nEM_KORVEX           : ## ERROR! Unhandled OpCode 0x0000 to be executed in task - fix "
      "this!",
      halvane::TakeTrace());
  EXPECT_TRUE(recordingSwitch.Replies().empty());
  EXPECT_TRUE(recordingSwitch.AsyncRequests().empty());
}

TEST_F(DispatchTest, TransferTaskWithoutArchiveIsAnsweredWith3) {
  CRecordingSwitch recordingSwitch;
  EM_KORVEX module;
  module.m_pSwitch = &recordingSwitch;
  SetPaths(module);
  SipJson task;
  Load(task, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"TO":20,"DA":"f.zip","ST":1}]}})");
  halvane::TakeTrace();
  module.OnTaskExecution(task, EM_KORVEX::TASK_PRIORITY_0);
  EXPECT_EQ(
      "\n"
      "\nEM_KORVEX           : Transfer Korvex archive to BMC (async in TaskSerializer)"
      "\nEM_KORVEX (Transfer): Transfer archive to BMC, timeout=20 sec."
      "\nEM_KORVEX (Transfer):   ...BMC local name = \"f.zip\""
      "\n\nEM_KORVEX (Transfer): ## ERROR! Korvex archive does not exist - cannot transfer file!\n",
      halvane::TakeTrace());
  const std::vector<CRecordingSwitch::CCall> replies = recordingSwitch.Replies();
  ASSERT_EQ(1u, replies.size());
  EXPECT_EQ(static_cast<CIExtensionModule*>(&module), replies[0].m_pSender);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"TO":20,"DA":"f.zip","ST":3}]}})",
            replies[0].m_Json);
  EXPECT_TRUE(recordingSwitch.AsyncRequests().empty());
}

TEST_F(DispatchTest, TransferTaskLinesAreWrittenAtTheirLevels) {
  CRecordingSwitch recordingSwitch;
  EM_KORVEX module;
  module.m_pSwitch = &recordingSwitch;
  SetPaths(module);
  ExpectTraceAtEveryLevel(
      [&] {
        SipJson task;
        Load(task, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":20,"DA":"f.zip","ST":1}]}})");
        halvane::TakeTrace();
        module.OnTaskExecution(task, EM_KORVEX::TASK_PRIORITY_0);
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {3, "\n"},
            {2, "\nEM_KORVEX           : Transfer Korvex archive to BMC (async in TaskSerializer)"},
            {3, "\nEM_KORVEX (Transfer): Transfer archive to BMC, timeout=20 sec."},
            {3, "\nEM_KORVEX (Transfer):   ...BMC local name = \"f.zip\""},
            {1,
             "\n\nEM_KORVEX (Transfer): ## ERROR! Korvex archive does not exist - cannot transfer "
             "file!\n"}};
      });
  const std::vector<CRecordingSwitch::CCall> replies = recordingSwitch.Replies();
  ASSERT_EQ(5u, replies.size());
  for (const CRecordingSwitch::CCall& reply : replies) {
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":20,"DA":"f.zip","ST":3}]}})", reply.m_Json);
  }
}

TEST_F(DispatchTest, CreationTaskLinesAreWrittenAtTheirLevels) {
  CRecordingSwitch recordingSwitch;
  EM_KORVEX module;
  module.m_pSwitch = &recordingSwitch;
  SetPaths(module);
  // With the switch going down the job ends at once, so the task's own lines
  // and the job's one line are all there is.
  EXPECT_EQ(0, module.Notify(0x20000, nullptr, nullptr));
  ExpectTraceAtEveryLevel(
      [&] {
        SipJson task;
        Load(task, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"ST":1}]}})");
        halvane::TakeTrace();
        module.OnTaskExecution(task, EM_KORVEX::TASK_PRIORITY_0);
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {3, "\n"},
            {2,
             "\nEM_KORVEX           : Create Korvex archive, may take several minutes (async in "
             "TaskSerializer)"},
            {2,
             "\n\nEM_KORVEX (Create)  : ## NOTE: SWITCH shutdown in progress - do not create "
             "archive"}};
      });
  const std::vector<CRecordingSwitch::CCall> replies = recordingSwitch.Replies();
  ASSERT_EQ(5u, replies.size());
  for (const CRecordingSwitch::CCall& reply : replies) {
    EXPECT_EQ(static_cast<CIExtensionModule*>(&module), reply.m_pSender);
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"ST":6}]}})", reply.m_Json);
  }
}

TEST_F(DispatchTest, CreationTaskIsAnsweredOnceAfterTheToolEnded) {
  CRecordingSwitch recordingSwitch;
  EM_KORVEX module;
  module.m_pSwitch = &recordingSwitch;
  SetPaths(module);
  // The tool leaves a marker behind; the reply must come after it.
  WriteTool(m_Dir.Path(),
            "printf zip > '" + Archive() + "'\nprintf ran > '" + Root() + "ran'\nexit 0");
  SipJson task;
  Load(task, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":1}]}})");
  halvane::TakeTrace();
  module.OnTaskExecution(task, EM_KORVEX::TASK_PRIORITY_0);
  EXPECT_EQ("ran", ReadFile(Root() + "ran"));
  const std::vector<CRecordingSwitch::CCall> replies = recordingSwitch.Replies();
  ASSERT_EQ(1u, replies.size());
  EXPECT_EQ(static_cast<CIExtensionModule*>(&module), replies[0].m_pSender);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":0}]}})", replies[0].m_Json);
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\n",
       "\nEM_KORVEX           : Create Korvex archive, may take several minutes (async in "
       "TaskSerializer)",
       "\nEM_KORVEX (Create)  : Korvex archive successfully created"}));
}

TEST_F(DispatchTest, TaskWithoutSwitchRunsButIsNeverAnswered) {
  EM_KORVEX module;
  ASSERT_EQ(nullptr, module.m_pSwitch);
  SetPaths(module);
  WriteTool(m_Dir.Path(), "printf zip > '" + Archive() + "'\nexit 0");
  SipJson create;
  Load(create, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":1}]}})");
  module.OnTaskExecution(create, EM_KORVEX::TASK_PRIORITY_0);
  // The job ran to its end: the archive is there and the status is final.
  EXPECT_EQ("zip", ReadFile(Archive()));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":0}]}})", create.ToJson());

  SipJson transfer;
  Load(transfer, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"ST":1}]}})");
  module.OnTaskExecution(transfer, EM_KORVEX::TASK_PRIORITY_0);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"ST":6}]}})", transfer.ToJson());
}
