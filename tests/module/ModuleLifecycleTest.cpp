// Unit tests of the module's lifecycle: entry points and instance, the
// properties record, Start and Stop, finding the tool, removing an old
// archive, and the clean-up setup action.
#include "frame/ModuleEntry.h"
#include "host/HostControl.h"
#include "module/EM_KORVEX.h"
#include "tests/module/ModuleTestSupport.h"
#include "tests/module/ModuleUnitFixture.h"
#include "tests/support/RecordingSwitch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace korvex_test;

namespace {

constexpr std::size_t kRecordBytes = 246;

// A properties record as the host hands it over: a recognisable pattern in
// every byte, the size at offset 0.
std::vector<unsigned char> PatternRecord(unsigned int recordSize) {
  std::vector<unsigned char> bytes(kRecordBytes);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 3);
  std::memcpy(bytes.data(), &recordSize, sizeof(recordSize));
  bytes[8] = 0xA4;   // bits 0 and 1 clear, others mixed
  bytes[21] = 0x5F;  // bits 0 and 1 set, others mixed
  return bytes;
}

void PutText(std::vector<unsigned char>& bytes, std::size_t offset, const char* text) {
  for (std::size_t i = 0; i < 100; ++i) bytes[offset + i] = 0;
  std::memcpy(bytes.data() + offset, text, std::strlen(text));
}

int CallGetProperties(EM_KORVEX& module, std::vector<unsigned char>& bytes) {
  alignas(8) unsigned char record[kRecordBytes];
  std::memcpy(record, bytes.data(), kRecordBytes);
  const int result = module.GetProperties(*reinterpret_cast<_ExtensionModuleProperties*>(record));
  std::memcpy(bytes.data(), record, kRecordBytes);
  return result;
}

}  // namespace

// ----- properties -----------------------------------------------------------

TEST_F(ModuleUnitTest, GetPropertiesFillsOnlyItsFieldsOfA246ByteRecord) {
  EM_KORVEX module;
  std::vector<unsigned char> bytes = PatternRecord(246);
  std::vector<unsigned char> expected = bytes;
  expected[8] = 0xA7;   // bits 0 and 1 set, bits 2..7 kept
  expected[21] = 0x5C;  // bits 0 and 1 cleared, bits 2..7 kept
  const unsigned int kind = 2;
  std::memcpy(expected.data() + 42, &kind, sizeof(kind));
  PutText(expected, 46, "EM_KORVEX");
  PutText(expected, 146, "Korvex extension module");

  EXPECT_EQ(1, CallGetProperties(module, bytes));
  EXPECT_EQ(expected, bytes);
  // The name field: the nine characters and 91 zero bytes.
  EXPECT_EQ(0, std::memcmp(bytes.data() + 46, "EM_KORVEX", 9));
  EXPECT_EQ(std::vector<unsigned char>(91, 0),
            std::vector<unsigned char>(bytes.begin() + 55, bytes.begin() + 146));
}

TEST_F(ModuleUnitTest, GetPropertiesWithRecordSize245ChangesNothing) {
  EM_KORVEX module;
  for (unsigned int size : {245u, 0u, 1u}) {
    std::vector<unsigned char> bytes = PatternRecord(size);
    const std::vector<unsigned char> before = bytes;
    EXPECT_EQ(0, CallGetProperties(module, bytes)) << size;
    EXPECT_EQ(before, bytes) << size;
  }
}

TEST_F(ModuleUnitTest, GetPropertiesComparesTheSizeUnsigned) {
  EM_KORVEX module;
  std::vector<unsigned char> bytes = PatternRecord(0x80000000u);
  EXPECT_EQ(1, CallGetProperties(module, bytes));
  EXPECT_EQ(0, std::memcmp(bytes.data() + 46, "EM_KORVEX", 10));
}

TEST_F(ModuleUnitTest, NameIsTheModuleName) {
  EM_KORVEX module;
  EXPECT_STREQ("EM_KORVEX", module.GetName());
  EXPECT_STREQ("EM_KORVEX", static_cast<CIExtensionModule&>(module).GetName());
}

// ----- entry points -----------------------------------------------------------

TEST_F(ModuleUnitTest, DeleteTwiceAfterOneCreate) {
  ASSERT_EQ(nullptr, pModuleInstance);
  void* module = nullptr;
  ASSERT_EQ(1, EM_Create(&module));
  ASSERT_NE(nullptr, module);
  EXPECT_EQ(pModuleInstance, static_cast<CIExtensionModule*>(module));
  EXPECT_EQ(1, EM_Delete(nullptr));
  EXPECT_EQ(nullptr, pModuleInstance);
  EXPECT_EQ(0, EM_Delete(nullptr));

  std::vector<CLine> lines = ConstructionLines();
  Append(lines, DestructionLines());
  EXPECT_EQ(TraceUpTo(lines, 5), halvane::TakeTrace());
}

TEST_F(ModuleUnitTest, CreateAndDeleteTraceAtTheirLevels) {
  ExpectTraceAtEveryLevel(
      [] {
        void* module = nullptr;
        EXPECT_EQ(1, EM_Create(&module));
        EXPECT_EQ(1, EM_Delete(nullptr));
        return halvane::TakeTrace();
      },
      [] {
        std::vector<CLine> lines = ConstructionLines();
        Append(lines, DestructionLines());
        return lines;
      });
}

TEST_F(ModuleUnitTest, DeleteWithoutInstanceReturns0AndTracesNothing) {
  ASSERT_EQ(nullptr, pModuleInstance);
  int dummy = 0;
  EXPECT_EQ(0, EM_Delete(&dummy));
  EXPECT_EQ("", halvane::TakeTrace());
}

TEST_F(ModuleUnitTest, ModuleNameIsTheSameBeforeCreateAndAfterDelete) {
  const char* before = EM_GetModuleName();
  EXPECT_STREQ("EM_KORVEX", before);
  void* module = nullptr;
  ASSERT_EQ(1, EM_Create(&module));
  EXPECT_STREQ(EM_GetModuleName(), static_cast<CIExtensionModule*>(module)->GetName());
  ASSERT_EQ(1, EM_Delete(nullptr));
  EXPECT_EQ(before, EM_GetModuleName());
  EXPECT_STREQ("EM_KORVEX", EM_GetModuleName());
}

TEST_F(ModuleUnitTest, SecondCreateOverwritesTheOneSlot) {
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(1, EM_Create(&first));
  ASSERT_EQ(1, EM_Create(&second));
  EXPECT_NE(first, second);
  EXPECT_EQ(static_cast<CIExtensionModule*>(second), pModuleInstance);
  EXPECT_EQ(1, EM_Delete(nullptr));
  EXPECT_EQ(0, EM_Delete(nullptr));  // the first is no longer reachable this way
  delete static_cast<CIExtensionModule*>(first);
}

TEST_F(ModuleUnitTest, CreateWithoutAPlaceForTheInstanceMakesNone) {
  EXPECT_EQ(0, EM_Create(nullptr));
  EXPECT_EQ(nullptr, pModuleInstance);
  EXPECT_EQ("", halvane::TakeTrace());
}

// ----- configuration store -------------------------------------------------------

TEST_F(ModuleUnitTest, FileRootWithSlashStaysAsItIs) {
  SetToolRoot("/opt/korvex/");
  std::string root = "old";
  EXPECT_EQ(1, EM_KORVEX::GetKorvexPath(root));
  EXPECT_EQ("/opt/korvex/", root);
}

TEST_F(ModuleUnitTest, FileRootWithoutSlashGainsOne) {
  SetToolRoot("/opt/korvex");
  ExpectTraceAtEveryLevel(
      [] {
        std::string root;
        EXPECT_EQ(1, EM_KORVEX::GetKorvexPath(root));
        EXPECT_EQ("/opt/korvex/", root);
        return halvane::TakeTrace();
      },
      [] { return GetPathLines("/opt/korvex/"); });
}

TEST_F(ModuleUnitTest, EmptyFileRootBecomesSlash) {
  SetToolRoot("");
  std::string root;
  EXPECT_EQ(1, EM_KORVEX::GetKorvexPath(root));
  EXPECT_EQ("/", root);
  EXPECT_EQ(TraceUpTo(GetPathLines("/"), 5), halvane::TakeTrace());
}

TEST_F(ModuleUnitTest, MissingProductRootGivesOnlyTheLevel2Line) {
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Other\\Setup", "FileRoot", "/opt/other");
  ExpectTraceAtEveryLevel(
      [] {
        std::string root = "untouched";
        EXPECT_EQ(0, EM_KORVEX::GetKorvexPath(root));
        EXPECT_EQ("untouched", root);
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {2,
             "\nEM_KORVEX (GetPath) : ## Korvex pointer key not existing - no Halvane component "
             "installed."}};
      });
}

TEST_F(ModuleUnitTest, MissingSetupKeyTracesTheRegistryErrorWord) {
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Korvex\\Install", "Version", "1");
  const std::string key = halvane::ProductRootKey("Korvex");
  // The code printed is the registry object's own last-error word.
  CRegistry reference;
  ASSERT_NE(0, reference.Open((key + "\\Setup").c_str(), CRegistry::MLocalMachine, -1));
  char code[16];
  std::snprintf(code, sizeof(code), "0x%08X", reference.m_LastError);

  ExpectTraceAtEveryLevel(
      [] {
        std::string root = "untouched";
        EXPECT_EQ(0, EM_KORVEX::GetKorvexPath(root));
        EXPECT_EQ("untouched", root);
        return halvane::TakeTrace();
      },
      [&] {
        return std::vector<CLine>{
            {3, "\nEM_KORVEX (GetPath) : Found Korvex root registry key: \"" + key + "\""},
            {4, "\nEM_KORVEX (GetPath) :   open Korvex setup key: \"" + key + "\\Setup\"..."},
            {1, "\nEM_KORVEX (GetPath) : ## ERROR " + std::string(code) +
                    "! Could not open registry key \"" + key + "\\Setup\"!"}};
      });
}

TEST_F(ModuleUnitTest, MissingFileRootValueTracesTheRegistryErrorWord) {
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Korvex\\Setup", "Version", "1");
  const std::string key = halvane::ProductRootKey("Korvex");
  CRegistry reference;
  ASSERT_EQ(0, reference.Open((key + "\\Setup").c_str(), CRegistry::MLocalMachine, -1));
  std::string value;
  ASSERT_NE(0, reference.QueryValue(value, "FileRoot", nullptr));
  char code[16];
  std::snprintf(code, sizeof(code), "0x%08X", reference.m_LastError);
  reference.Close();

  ExpectTraceAtEveryLevel(
      [] {
        std::string root;
        EXPECT_EQ(0, EM_KORVEX::GetKorvexPath(root));
        return halvane::TakeTrace();
      },
      [&] {
        return std::vector<CLine>{
            {3, "\nEM_KORVEX (GetPath) : Found Korvex root registry key: \"" + key + "\""},
            {4, "\nEM_KORVEX (GetPath) :   open Korvex setup key: \"" + key + "\\Setup\"..."},
            {4, "\nEM_KORVEX (GetPath) :   query Korvex file root value: \"FileRoot\"..."},
            {1, "\nEM_KORVEX (GetPath) : ## ERROR " + std::string(code) +
                    "! Could not query registry value \"FileRoot\" in Korvex setup key!"}};
      });
}

// ----- old archive ------------------------------------------------------------------

TEST_F(ModuleUnitTest, DeleteArchiveFileWithoutArchive) {
  EM_KORVEX module;
  SetPaths(module);
  halvane::TakeTrace();
  ExpectTraceAtEveryLevel(
      [&] {
        EXPECT_EQ(0, module.DeleteArchiveFile());
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {4, "\nEM_KORVEX           :   Korvex archive file not existing"}};
      });
}

TEST_F(ModuleUnitTest, DeleteArchiveFileDeletesAnOldArchive) {
  EM_KORVEX module;
  SetPaths(module);
  halvane::TakeTrace();
  ExpectTraceAtEveryLevel(
      [&] {
        WriteFile(Archive(), "old archive");
        EXPECT_EQ(1, module.DeleteArchiveFile());
        EXPECT_FALSE(Exists(Archive()));
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {3,
             "\nEM_KORVEX           :   delete previous Korvex archive (be sure to have the latest "
             "one!)"},
            {4, "\nEM_KORVEX           :   previous Korvex archive deleted"}};
      });
}

TEST_F(ModuleUnitTest, DeleteArchiveFileOnADirectoryFailsWithErrno) {
  EM_KORVEX module;
  SetPaths(module);
  ASSERT_EQ(0, mkdir(Archive().c_str(), 0755));
  halvane::TakeTrace();
  char code[16];
  std::snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned int>(EISDIR));
  ExpectTraceAtEveryLevel(
      [&] {
        EXPECT_EQ(0, module.DeleteArchiveFile());
        return halvane::TakeTrace();
      },
      [&] {
        return std::vector<CLine>{
            {3,
             "\nEM_KORVEX           :   delete previous Korvex archive (be sure to have the latest "
             "one!)"},
            {1, "\nEM_KORVEX           : ## ERROR! Old Korvex archive file cannot be removed (" +
                    std::string(code) + ")!"}};
      });
  EXPECT_TRUE(Exists(Archive()));
}

// ----- Start and Stop -----------------------------------------------------------------

namespace {

std::vector<CLine> StartHeadLines(const char* serviceName) {
  return {{1, "\n\n" + Rule()},
          {1, "\nEM_KORVEX (Start)   : ### Starting module EM_KORVEX ###\n"},
          {4, std::string("\nEM_KORVEX           : Register event log source \"") + serviceName +
                  "\" ..."},
          {4, std::string("\nEM_KORVEX           : ... event log source \"") + serviceName +
                  "\" registered"}};
}

std::vector<CLine> StartPathLines(const std::string& root) {
  return {{2, "\nEM_KORVEX (Start)   : Korvex executable: \"" + root + "Korvex\""},
          {2, "\nEM_KORVEX (Start)   : Korvex archive:    \"" + root + "Korvex_Data.zip\"\n"},
          {3, "\nEM_KORVEX (Start)   : Check for Korvex executable file existing..."}};
}

std::vector<CLine> StopLinesWithoutWorker() {
  return {{1, "\n\n" + Rule()},
          {1, "\n### Stopping module EM_KORVEX ###\n"},
          {4, "\nCTaskSerializer     : TerminateSerialization!"},
          {5, "\nCTaskSerializer     :   terminated"},
          {4, "\nEM_KORVEX (Stop)    : Korvex process not running, can stop module immediately"},
          {1, "\n\n### Stop of module EM_KORVEX completed successfully ###"},
          {1, "\n" + Rule() + "\n"}};
}

}  // namespace

TEST_F(ModuleUnitTest, StartWithoutToolBuildsThePathsAndDoesNotStart) {
  // The root as stored has no trailing "/".
  SetToolRoot(m_Dir.Path());
  CRecordingSwitch recordingSwitch;
  ExpectTraceAtEveryLevel(
      [&] {
        EM_KORVEX module;
        halvane::TakeTrace();
        EXPECT_EQ(0, module.Start(&recordingSwitch, 0x20005));
        const std::string trace = halvane::TakeTrace();
        EXPECT_EQ(Root(), module.m_ToolRoot);
        EXPECT_EQ(Root() + "Korvex", module.m_ExecutablePath);
        EXPECT_EQ(Root() + "Korvex_Data.zip", module.m_ArchivePath);
        EXPECT_EQ(0u, module.m_Installed);
        // Switch and id stay stored although the module did not start.
        EXPECT_EQ(&recordingSwitch, module.m_pSwitch);
        EXPECT_EQ(2, module.m_ModuleLayer);
        EXPECT_EQ(5, module.m_ModuleIndex);
        return trace;
      },
      [&] {
        std::vector<CLine> lines = StartHeadLines("Halvane Agentless Service");
        Append(lines, GetPathLines(Root()));
        Append(lines, StartPathLines(Root()));
        Append(lines, {{1, "\nEM_KORVEX (Start)   : -> Korvex not installed - module not started!"},
                       {1, "\n" + Rule() + "\n"}});
        return lines;
      });
}

TEST_F(ModuleUnitTest, StartWithoutConfiguredRootDoesNotStart) {
  ExpectTraceAtEveryLevel(
      [&] {
        EM_KORVEX module;
        halvane::TakeTrace();
        EXPECT_EQ(0, module.Start(nullptr, 0));
        EXPECT_EQ(0u, module.m_Installed);
        EXPECT_EQ("", module.m_ExecutablePath);
        return halvane::TakeTrace();
      },
      [] {
        std::vector<CLine> lines = StartHeadLines("Halvane Server Control");
        Append(lines,
               {{2,
                 "\nEM_KORVEX (GetPath) : ## Korvex pointer key not existing - no Halvane "
                 "component installed."},
                {1,
                 "\nEM_KORVEX (Start)   : ## ERROR! Could not get the Korvex installation path - "
                 "module not started!"},
                {1, "\n" + Rule() + "\n"}});
        return lines;
      });
}

TEST_F(ModuleUnitTest, StopWithoutToolProcessAfterAFailedStart) {
  SetToolRoot(Root());
  ExpectTraceAtEveryLevel(
      [&] {
        EM_KORVEX module;
        EXPECT_EQ(0, module.Start(nullptr, 0));
        halvane::TakeTrace();
        EXPECT_EQ(1, module.Stop());
        return halvane::TakeTrace();
      },
      [] { return StopLinesWithoutWorker(); });
}

TEST_F(ModuleUnitTest, StopWithAStaleToolProcessIdStillReturns1) {
  // Far above any pid the kernel hands out: no such process exists.
  const unsigned int stale = 0x7FFFFFF0u;
  ExpectTraceAtEveryLevel(
      [&] {
        EM_KORVEX module;
        module.m_ToolProcessId = stale;
        halvane::TakeTrace();
        EXPECT_EQ(1, module.Stop());
        EXPECT_EQ(stale, module.m_ToolProcessId);  // Stop does not clear it
        return halvane::TakeTrace();
      },
      [&] {
        return std::vector<CLine>{
            {1, "\n\n" + Rule()},
            {1, "\n### Stopping module EM_KORVEX ###\n"},
            {4, "\nCTaskSerializer     : TerminateSerialization!"},
            {5, "\nCTaskSerializer     :   terminated"},
            {1,
             "\nEM_KORVEX (Stop)    : -> Korvex archive creation in progress - terminate process "
             "(#" +
                 std::to_string(static_cast<int>(stale)) + ") and wait for exit..."},
            {1,
             "\n\nEM_KORVEX (Stop)    : ## ERROR! Korvex process could not be terminated (process "
             "not found; already terminated?)!\n"},
            {1, "\n\n### Stop of module EM_KORVEX completed successfully ###"},
            {1, "\n" + Rule() + "\n"}};
      });
}

TEST_F(ModuleUnitTest, DirectoryNamedKorvexCountsAsInstalledAndStartsTheWorker) {
  SetToolRoot(m_Dir.Path());
  ASSERT_EQ(0, mkdir((m_Dir / "Korvex").c_str(), 0755));
  EM_KORVEX module;
  halvane::TakeTrace();
  EXPECT_EQ(1, module.Start(nullptr, 7));
  EXPECT_EQ(1u, module.m_Installed);
  const std::string started = halvane::TakeTrace();
  EXPECT_TRUE(ContainsInOrder(
      started,
      {"\nEM_KORVEX (Start)   : Check for Korvex executable file existing...",
       "\nEM_KORVEX (Start)   : -> Korvex is installed - module will be started",
       "\nEM_KORVEX (Start)   : Start task handler", "\nCTaskSerializer     : StartSerialization!",
       "\n\nEM_KORVEX (Start)   : Start of module completed", "\n" + Rule() + "\n"}));
  EXPECT_EQ(1u, CountOf(started, "\nCTaskSerializer     : START THREAD TaskHandler()!"));

  EXPECT_EQ(1, module.Stop());
  const std::string stopped = halvane::TakeTrace();
  EXPECT_TRUE(ContainsInOrder(
      stopped,
      {"\n\n" + Rule(), "\n### Stopping module EM_KORVEX ###\n",
       "\nCTaskSerializer     : TerminateSerialization!",
       "\nCTaskSerializer     : Disable all Tasks",
       "\nCTaskSerializer     : All pending tasks removed from queues!",
       "\nCTaskSerializer     :   terminated",
       "\nEM_KORVEX (Stop)    : Korvex process not running, can stop module immediately",
       "\n\n### Stop of module EM_KORVEX completed successfully ###", "\n" + Rule() + "\n"}));
  EXPECT_EQ(1u, CountOf(stopped, "\nCTaskSerializer     : EXIT THREAD TaskHandler()!"));
}

namespace {

// Gives the test the worker's thread id, which the naming and exit lines
// carry.
class CWorkerIdModule : public EM_KORVEX {
 public:
  unsigned int WorkerId() const { return static_cast<unsigned int>(m_Thread.m_ThreadId); }
};

std::string Hex8(unsigned int value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08X", value);
  return text;
}

}  // namespace

// Every line of a successful Start and of the Stop of its running worker at
// host trace levels 1 to 3. The worker's own lines up to its exit are level
// 4 and 5; at these levels only the calling thread's lines and the worker's
// level-1 exit line remain, and the latter is written before Stop's wait for
// the worker returns, so the whole trace has one order.
TEST_F(ModuleUnitTest, StartWithTheToolAndStopTraceEachLineAtItsLevel) {
  const std::string debugName = Debug.m_DebugName;
  halvane::SetDebugName("ModuleUnitHost");
  SetToolRoot(m_Dir.Path());
  WriteTool(m_Dir.Path(), "exit 0");
  for (unsigned int level = 1; level <= 3; ++level) {
    halvane::SetTraceLevel(level);
    CWorkerIdModule module;
    halvane::TakeTrace();
    ASSERT_EQ(1, module.Start(nullptr, 0)) << "host trace level " << level;
    const std::string started = halvane::TakeTrace();
    const unsigned int worker = module.WorkerId();
    ASSERT_NE(0u, worker);

    std::vector<CLine> startLines = StartHeadLines("Halvane Server Control");
    Append(startLines, GetPathLines(Root()));
    Append(startLines, StartPathLines(Root()));
    Append(startLines,
           {{1, "\nEM_KORVEX (Start)   : -> Korvex is installed - module will be started"},
            {3, "\nEM_KORVEX (Start)   : Start task handler"},
            {4, "\nCTaskSerializer     : StartSerialization!"},
            {1, "CThread::SetThreadName: ThreadId = " + Hex8(worker) +
                    ", DebugName = ModuleUnitHost, Qualifier = (_TaskHndlr)\n"},
            {1, "\n\nEM_KORVEX (Start)   : Start of module completed"},
            {1, "\n" + Rule() + "\n"}});
    EXPECT_EQ(TraceUpTo(startLines, level), started) << "host trace level " << level;

    EXPECT_EQ(1, module.Stop());
    const std::vector<CLine> stopLines = {
        {1, "\n\n" + Rule()},
        {1, "\n### Stopping module EM_KORVEX ###\n"},
        {4, "\nCTaskSerializer     : TerminateSerialization!"},
        {1,
         "THREAD_RETURN: ## INFO: Thread = " + Hex8(worker) + " exited, Return = 0x00000000##\n"},
        {4, "\nEM_KORVEX (Stop)    : Korvex process not running, can stop module immediately"},
        {1, "\n\n### Stop of module EM_KORVEX completed successfully ###"},
        {1, "\n" + Rule() + "\n"}};
    EXPECT_EQ(TraceUpTo(stopLines, level), halvane::TakeTrace()) << "host trace level " << level;
  }
  halvane::SetTraceLevel(5);
  halvane::SetDebugName(debugName.c_str());
}

TEST_F(ModuleUnitTest, StartAgainAfterStopRecomputesTheInstalledFlag) {
  SetToolRoot(m_Dir.Path());
  EM_KORVEX module;
  EXPECT_EQ(0, module.Start(nullptr, 0));
  EXPECT_EQ(0u, module.m_Installed);
  EXPECT_EQ(1, module.Stop());
  WriteTool(m_Dir.Path(), "exit 0");
  EXPECT_EQ(1, module.Start(nullptr, 0));
  EXPECT_EQ(1u, module.m_Installed);
  EXPECT_EQ(1, module.Stop());
  ASSERT_EQ(0, std::remove((m_Dir / "Korvex").c_str()));
  EXPECT_EQ(0, module.Start(nullptr, 0));
  EXPECT_EQ(0u, module.m_Installed);
  EXPECT_EQ(1, module.Stop());
}

// ----- destruction without Stop -------------------------------------------------------

namespace {

const char* const kCreateRequest = R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":1}]}})";

// Every line of deleting a module whose worker waits for the wake-up event:
// the module's own line, then the serializer's destructor ending the live
// worker, exactly as for any serializer; no other line in between.
std::vector<CLine> DestructionWithIdleWorkerLines(unsigned int worker) {
  return {
      {1, "\nEM_KORVEX           : CLASS DESTROYED!"},
      {4, "\nCTaskSerializer     : TerminateSerialization!"},
      {4, "\nCTaskSerializer     : Disable all Tasks"},
      {4, "\nCTaskSerializer     : All pending tasks removed from queues!"},
      {4, "\nCTaskSerializer     : Wakeup from (any) task queue!"},
      {4, "\nCTaskSerializer     : EXIT THREAD TaskHandler()!"},
      {1, "THREAD_RETURN: ## INFO: Thread = " + Hex8(worker) + " exited, Return = 0x00000000##\n"},
      {5, "\nCTaskSerializer     :   terminated"},
      {4, "\n\nCTaskSerializer     : Class destroyed!"}};
}

// The worker's thread id from the naming line of a Start trace; 0 if none.
// (Not from a class derived for the test: deleting a started module through
// a derived class would change its dynamic type before EM_KORVEX's
// destructor holds the worker.)
unsigned int WorkerIdFromTrace(const std::string& trace) {
  const std::string marker = "CThread::SetThreadName: ThreadId = 0x";
  const std::size_t at = trace.find(marker);
  if (at == std::string::npos) return 0;
  return static_cast<unsigned int>(std::stoul(trace.substr(at + marker.size(), 8), nullptr, 16));
}

}  // namespace

// A host that deletes a started module without Stop: the worker waits, and
// the lines are exactly the module's and the serializer's, at every level.
TEST_F(ModuleUnitTest, DeletingAStartedModuleWithAnIdleWorkerWritesOnlyTheSerializerLines) {
  SetToolRoot(m_Dir.Path());
  WriteTool(m_Dir.Path(), "exit 0");
  unsigned int worker = 0;
  ExpectTraceAtEveryLevel(
      [&] {
        auto* module = new EM_KORVEX;
        EXPECT_EQ(1, module->Start(nullptr, 0));
        worker = WorkerIdFromTrace(halvane::TakeTrace());
        EXPECT_NE(0u, worker);
        delete module;
        return halvane::TakeTrace();
      },
      [&] { return DestructionWithIdleWorkerLines(worker); });
}

// The same with two tasks queued before Start, so that the worker waits with
// tasks in its queue (Start resets the wake-up event): the tasks are dropped,
// never run, and the lines stay exactly the same.
TEST_F(ModuleUnitTest, DeletingAStartedModuleWithQueuedTasksDropsThemWithTheSameLines) {
  SetToolRoot(m_Dir.Path());
  const std::string marker = m_Dir / "tool-ran";
  WriteTool(m_Dir.Path(), "touch '" + marker + "'\nexit 0");
  CRecordingSwitch recorder;
  unsigned int worker = 0;
  ExpectTraceAtEveryLevel(
      [&] {
        auto* module = new EM_KORVEX;
        SipJson request;
        Load(request, kCreateRequest);
        EXPECT_EQ(1, module->InsertTask(request, EM_KORVEX::TASK_PRIORITY_0, nullptr));
        EXPECT_EQ(1, module->InsertTask(request, EM_KORVEX::TASK_PRIORITY_0, nullptr));
        EXPECT_EQ(1, module->Start(&recorder, 0));
        worker = WorkerIdFromTrace(halvane::TakeTrace());
        EXPECT_NE(0u, worker);
        delete module;
        return halvane::TakeTrace();
      },
      [&] { return DestructionWithIdleWorkerLines(worker); });
  EXPECT_EQ(0u, recorder.Replies().size());
  EXPECT_NE(0, access(marker.c_str(), F_OK)) << "a queued task ran";
}

// The case the module cannot make harmless alone: a host deletes it without
// Stop while a task runs. The destructor waits for the task as long as Stop
// would (100 ms + 2000 ms), then ends the worker with its thread before any
// member goes; the serializer's destructor then finds no worker. The tool
// itself is only ended by Stop, so it is still running afterwards.
TEST_F(ModuleUnitTest, DeletingAModuleWhileATaskRunsEndsTheWorkerBeforeTheMembersGo) {
  SetToolRoot(m_Dir.Path());
  CFifo started(m_Dir / "started");
  ASSERT_TRUE(started.Valid());
  // The tool's pid as this process sees it ($$ would be its pid inside the
  // collection's own PID namespace).
  WriteTool(m_Dir.Path(),
            "read -r s < /proc/self/stat; echo ${s%% *} > '" + started.Path() + "'\nexec sleep 60");
  CRecordingSwitch recorder;
  auto* module = new EM_KORVEX;
  ASSERT_EQ(1, module->Start(&recorder, 0));
  SipJson request;
  Load(request, kCreateRequest);
  ASSERT_EQ(1, module->InsertTask(request, EM_KORVEX::TASK_PRIORITY_0, nullptr));
  std::string line;
  ASSERT_TRUE(started.ReadLine(line, 60000)) << "the tool did not start";
  const pid_t tool = static_cast<pid_t>(std::stol(line));
  halvane::TakeTrace();

  const auto before = std::chrono::steady_clock::now();
  delete module;
  const auto took = std::chrono::steady_clock::now() - before;
  EXPECT_EQ(TraceUpTo(DestructionLines(), 5), halvane::TakeTrace());
  // Not a timing assertion: the lower bound shows that the task was given
  // its grace before its thread was ended.
  EXPECT_GE(took, std::chrono::milliseconds(2100));
  EXPECT_EQ(0u, recorder.Replies().size());
  EXPECT_EQ(0, kill(tool, 0)) << "the tool was ended, which only Stop does";
  kill(tool, SIGKILL);
}

// ----- setup action -----------------------------------------------------------------

namespace {

std::vector<CLine> SetupHeadLines(const std::string& root) {
  std::vector<CLine> lines = {{5, "\nEM_KORVEX           : -> SetupAction"},
                              {1, "\nEM_KORVEX (SetupAct): ## Cleanup Korvex archives"}};
  Append(lines, GetPathLines(root));
  lines.push_back(
      {3, "\nEM_KORVEX (SetupAct): Korvex archive path: \"" + root + "Korvex_Data.zip\"\n"});
  return lines;
}

}  // namespace

TEST_F(ModuleUnitTest, SetupActionOtherThan4Returns0WithOnlyTheLevel5Lines) {
  SetToolRoot(Root());
  WriteFile(Archive(), "archive");
  ExpectTraceAtEveryLevel(
      [] {
        EXPECT_EQ(0u, EM_SetupAction(3));
        EXPECT_EQ(0u, EM_SetupAction(0));
        EXPECT_EQ(0u, EM_SetupAction(5));
        return halvane::TakeTrace();
      },
      [] {
        std::vector<CLine> lines;
        for (int i = 0; i < 3; ++i) {
          Append(lines, {{5, "\nEM_KORVEX           : -> SetupAction"},
                         {5, "\nEM_KORVEX           : <- SetupAction"}});
        }
        return lines;
      });
  EXPECT_TRUE(Exists(Archive()));
}

TEST_F(ModuleUnitTest, SetupAction4WithoutDataDirectoryReturns1AndDeletesTheArchive) {
  SetToolRoot(m_Dir.Path());
  ASSERT_EQ(nullptr, pModuleInstance);  // needs no instance
  ExpectTraceAtEveryLevel(
      [&] {
        WriteFile(Archive(), "archive");
        EXPECT_EQ(1u, CleanUp());
        EXPECT_FALSE(Exists(Archive()));
        return halvane::TakeTrace();
      },
      [&] {
        std::vector<CLine> lines = SetupHeadLines(Root());
        Append(lines, {{2, "\nEM_KORVEX (SetupAct): Remove complete Korvex archive data dir \"" +
                               DataDir() + "\"..."},
                       {5, "\nEM_KORVEX           : <- SetupAction"}});
        return lines;
      });
}

TEST_F(ModuleUnitTest, SetupAction4WithoutArchiveStillSucceeds) {
  SetToolRoot(Root());
  EXPECT_EQ(1u, CleanUp());
}

TEST_F(ModuleUnitTest, SetupAction4WithoutRootReturns0) {
  ExpectTraceAtEveryLevel(
      [] {
        EXPECT_EQ(0u, EM_SetupAction(4));
        return halvane::TakeTrace();
      },
      [] {
        return std::vector<CLine>{
            {5, "\nEM_KORVEX           : -> SetupAction"},
            {1, "\nEM_KORVEX (SetupAct): ## Cleanup Korvex archives"},
            {2,
             "\nEM_KORVEX (GetPath) : ## Korvex pointer key not existing - no "
             "Halvane component installed."},
            {1,
             "\nEM_KORVEX (SetupAct): ## ERROR! Korvex path could not be "
             "evaluated!"},
            {5, "\nEM_KORVEX           : <- SetupAction"}};
      });
}

TEST_F(ModuleUnitTest, SetupAction4RemovingTheDataDirectoryCompletelyReturns0) {
  SetToolRoot(Root());
  ASSERT_EQ(0, mkdir(DataDir().c_str(), 0755));
  WriteFile(DataDir() + "/a", "collected data");
  WriteFile(Archive(), "archive");

  // The removal judges its final rmdir in reverse: complete removal gives 0.
  EXPECT_EQ(0u, CleanUp());
  EXPECT_FALSE(Exists(DataDir()));
  EXPECT_FALSE(Exists(Archive()));

  const std::string dir = DataDir();
  std::vector<std::string> lines;
  for (const CLine& line : SetupHeadLines(Root())) lines.push_back(line.m_Text);
  lines.push_back("\nEM_KORVEX (SetupAct): Remove complete Korvex archive data dir \"" + dir +
                  "\"...");
  lines.push_back("\nCDirectory          : Remove directory \"" + dir + "\"");
  lines.push_back("\nCDirectory          : Found file: \"" + dir + "/a\"");
  lines.push_back("\nCDirectory          : Remove file \"" + dir + "/a\" OK!");
  lines.push_back("\nCDirectory          : Remove directory parent \"" + dir + "/\"");
  // The error text after ": " is whatever errno held; the line's head is fixed.
  lines.push_back("\nCDirectory          : ERROR cannot remove parent directory \"" + dir +
                  "/\": ");
  lines.push_back("\nEM_KORVEX           : <- SetupAction");
  EXPECT_TRUE(ContainsInOrder(halvane::TakeTrace(), lines));
}

TEST_F(ModuleUnitTest, SetupAction4LeavingTheDataDirectoryInPlaceReturns1) {
  SetToolRoot(Root());
  ASSERT_EQ(0, mkdir(DataDir().c_str(), 0755));
  WriteFile(DataDir() + "/.keep", "hidden");
  WriteFile(DataDir() + "/b", "collected data");

  EXPECT_EQ(1u, CleanUp());
  EXPECT_TRUE(Exists(DataDir() + "/.keep"));
  EXPECT_FALSE(Exists(DataDir() + "/b"));
  EXPECT_TRUE(
      ContainsInOrder(halvane::TakeTrace(),
                      {"\nCDirectory          : Remove directory \"" + DataDir() + "\"",
                       "\nCDirectory          : Remove file \"" + DataDir() + "/b\" OK!",
                       "\nCDirectory          : Remove directory parent \"" + DataDir() + "/\" OK!",
                       "\nEM_KORVEX           : <- SetupAction"}));
}

TEST_F(ModuleUnitTest, SetupAction4WithAFileWhereTheDataDirectoryBelongsReturns1) {
  SetToolRoot(Root());
  WriteFile(DataDir(), "not a directory");
  EXPECT_EQ(1u, CleanUp());
  EXPECT_EQ("not a directory", ReadFile(DataDir()));
  const std::string trace = halvane::TakeTrace();
  EXPECT_EQ(std::string::npos, trace.find("CDirectory"));
}

// The export's fixed directory, /var/log/Korvex, is exercised by the root
// suite (PluginRootTest), which alone may touch it. A caller that names no
// directory gets nothing removed but the archive.
TEST_F(ModuleUnitTest, ANullDataDirectoryRemovesNothingButTheArchive) {
  SetToolRoot(Root());
  ASSERT_EQ(0, mkdir(DataDir().c_str(), 0755));
  WriteFile(Archive(), "archive");
  EXPECT_EQ(1u, EM_KORVEX::SetupAction(4, nullptr));
  EXPECT_FALSE(Exists(Archive()));
  EXPECT_TRUE(Exists(DataDir()));
  const std::string trace = halvane::TakeTrace();
  EXPECT_NE(std::string::npos,
            trace.find("\nEM_KORVEX (SetupAct): Remove complete Korvex archive data dir \"\"..."));
  EXPECT_EQ(std::string::npos, trace.find("CDirectory"));
}

TEST_F(ModuleUnitTest, AnEmptyDataDirectoryRemovesNothingButTheArchive) {
  SetToolRoot(Root());
  ASSERT_EQ(0, mkdir(DataDir().c_str(), 0755));
  WriteFile(Archive(), "archive");
  EXPECT_EQ(1u, EM_KORVEX::SetupAction(4, ""));
  EXPECT_FALSE(Exists(Archive()));
  EXPECT_TRUE(Exists(DataDir()));
  EXPECT_EQ(std::string::npos, halvane::TakeTrace().find("CDirectory"));
}

// ----- trace switch -------------------------------------------------------------------

TEST_F(ModuleUnitTest, WithTheTraceSwitchOffNoPrintCallIsMade) {
  SetToolRoot(m_Dir.Path());
  halvane::SetTraceSwitch(false);
  const unsigned long before = halvane::PrintCallCount();
  {
    EM_KORVEX module;
    EXPECT_EQ(0, module.Start(nullptr, 0));
    SipJson request;
    Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295}]}})");
    EXPECT_EQ(1, module.ModuleRequest(request));
    EXPECT_EQ(1, module.Stop());
    EXPECT_EQ(1u, CleanUp());
  }
  EXPECT_EQ(before, halvane::PrintCallCount());
  halvane::SetTraceSwitch(true);
  EXPECT_EQ("", halvane::TakeTrace());
}
