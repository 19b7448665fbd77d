// Fuzz target: EM_KORVEX::ModuleRequest on arbitrary messages, with the
// module started and its worker live, so that every queued request is
// copied into the task queue and run by the worker while the next input
// arrives.
//
// The tool's root is a scratch directory in which both "Korvex" and
// "Korvex_Data.zip" are directories: the module counts the tool as
// installed, archive creation cannot run anything (the executable is not a
// regular file) and answers 6, and a transfer finds its "archive" and sends
// the file-transfer request, which the switch here answers. Nothing is ever
// started, written or deleted. The queue keeps its bound of 19 tasks.
//
// Input: byte 0 is the current command index (signed), byte 1 selects the
// server cabinet number (0, 3 or 0xFFFFFFFF) and what the file transfer
// answers (0, 8, nothing, 12); the rest is the JSON text. (The switch's
// shutdown notice is left out: it is for good, and every later job would
// answer 6 without reaching the code worth fuzzing.)
#include "frame/ExtensionModule.h"
#include "frame/ModuleEntry.h"
#include "host/HostControl.h"
#include "message/SipJson.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class CFuzzSwitch : public CISwitch {
 public:
  unsigned int GetServiceType() override { return 5; }
  int AsyncRequest(CIExtensionModule*, SipJson& request, unsigned int) override {
    const unsigned int answer = m_Answer.load();
    if (answer != 0xFFFFFFFFu) request.SetCmdValue(request.GetCmd(), "ST", answer, 0);
    return 1;
  }
  int SendReply(CIExtensionModule*, SipJson& message) override {
    // The message is the queue's copy: read it whole once, as a switch would.
    (void)message.ToJson();
    ++m_Replies;
    return 1;
  }
  std::atomic<unsigned int> m_Answer{0};
  std::atomic<unsigned long> m_Replies{0};
};

CFuzzSwitch g_Switch;
CIExtensionModule* g_Module = nullptr;
std::string g_Root;

void StopModule() {
  if (g_Module == nullptr) return;
  g_Module->Stop();
  EM_Delete(nullptr);
  g_Module = nullptr;
  if (!g_Root.empty()) {
    ::rmdir((g_Root + "/Korvex").c_str());
    ::rmdir((g_Root + "/Korvex_Data.zip").c_str());
    ::rmdir(g_Root.c_str());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/korvex-fuzz.XXXXXX";
  if (::mkdtemp(&pattern[0]) == nullptr) std::abort();
  g_Root = pattern;
  if (::mkdir((g_Root + "/Korvex").c_str(), 0755) != 0 ||
      ::mkdir((g_Root + "/Korvex_Data.zip").c_str(), 0755) != 0) {
    std::abort();
  }
  halvane::ClearRegistry();
  halvane::SetRegistryValue(halvane::ProductRootKey("Korvex") + "\\Setup", "FileRoot", g_Root);
  halvane::InstallThreadMonitor();
  halvane::TraceToMemory();
  halvane::SetTraceLevel(5);
  halvane::SetTraceSwitch(true);

  void* created = nullptr;
  if (EM_Create(&created) != 1 || created == nullptr) std::abort();
  g_Module = static_cast<CIExtensionModule*>(created);
  if (g_Module->Start(&g_Switch, 0x00010001u) != 1) std::abort();
  // The worker must be stopped before the program's statics go.
  std::atexit(StopModule);
  halvane::TakeTrace();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const int index = static_cast<std::int8_t>(data[0]);
  const std::uint8_t selector = data[1];
  static const unsigned int kCabinets[] = {0u, 3u, 0xFFFFFFFFu, 0u};
  CExtensionModule::ServerCabinetNr = kCabinets[selector & 3u];
  static const unsigned int kAnswers[] = {0u, 8u, 0xFFFFFFFFu, 12u};
  g_Switch.m_Answer = kAnswers[(selector >> 2) & 3u];

  SipJson request;
  request.FromJson(reinterpret_cast<const char*>(data + 2), size - 2, 32, nullptr);
  request.m_CmdIndex = index;
  int result = -1;
  try {
    result = g_Module->ModuleRequest(request);
  } catch (...) {
    std::fprintf(stderr, "fuzz_module_request: ModuleRequest let an exception out\n");
    std::abort();
  }
  if (result != 0 && result != 1) std::abort();
  (void)request.ToJson();
  // The trace is captured in memory: keep it from growing without end.
  halvane::TakeTrace();
  return 0;
}
