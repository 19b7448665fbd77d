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
#include "tests/support/RecordingSwitch.h"
#include "tests/support/TempFiles.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned int kNoAnswer = 0xFFFFFFFFu;

// Replies are read whole once, as a switch would, and not kept.
CRecordingSwitch g_Switch{/*keepCopies=*/false};
CIExtensionModule* g_Module = nullptr;
korvex_test::CTempDir* g_Root = nullptr;

// What the file transfer answers: writes status as "ST", or nothing.
void AnswerTransfersWith(unsigned int status) {
  g_Switch.SetAsyncAnswer([status](SipJson& request) {
    if (status != kNoAnswer) request.SetCmdValue(request.GetCmd(), "ST", status, 0);
  });
}

void StopModule() {
  if (g_Module == nullptr) return;
  g_Module->Stop();
  EM_Delete(nullptr);
  g_Module = nullptr;
  delete g_Root;
  g_Root = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_Root = new korvex_test::CTempDir("korvex-fuzz");
  if (::mkdir((*g_Root / "Korvex").c_str(), 0755) != 0 ||
      ::mkdir((*g_Root / "Korvex_Data.zip").c_str(), 0755) != 0) {
    std::abort();
  }
  halvane::ClearRegistry();
  halvane::SetRegistryValue(halvane::ProductRootKey("Korvex") + "\\Setup", "FileRoot",
                            g_Root->Path());
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
  static const unsigned int kAnswers[] = {0u, 8u, kNoAnswer, 12u};
  AnswerTransfersWith(kAnswers[(selector >> 2) & 3u]);

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
