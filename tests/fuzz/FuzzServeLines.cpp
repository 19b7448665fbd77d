// Fuzz target: em-host's serve session reading arbitrary bytes as its input
// - the line reader (line breaks, the 1 MiB limit, a last line without a
// break, blank lines), the JSON line parser with its depth limit, the
// request and control forms and their checks, the hand-over of the message
// to the module through the switch and the ack written back.
//
// The module behind the session is the frame's base module (it answers
// every request with status 1 and queues nothing), so that "wait" never
// waits and "start"/"stop" cost nothing; the real module is fuzzed by
// fuzz_module_request. The input reaches the session through a memory file
// descriptor, the output goes to /dev/null.
#include "frame/ExtensionModule.h"
#include "host/HostControl.h"
#include "host/emhost/bmc/HtiStandIn.h"
#include "host/emhost/loader/ModuleHost.h"
#include "host/emhost/serve/ServeSession.h"
#include "host/emhost/serve/Signals.h"
#include "host/emhost/switch/HostSwitch.h"
#include "tests/support/BaseModule.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <signal.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

CSignalWatch* g_Signals = nullptr;
std::FILE* g_Output = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // SIGINT and SIGTERM only: libFuzzer's own time-out runs on SIGALRM, which
  // em-host would take as a request to end the session.
  static const int kSignals[] = {SIGINT, SIGTERM};
  g_Signals = new CSignalWatch(std::begin(kSignals), std::end(kSignals));
  g_Output = std::fopen("/dev/null", "w");
  if (g_Output == nullptr) std::abort();
  halvane::TraceToMemory();
  halvane::SetTraceSwitch(false);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int input = ::memfd_create("serve-input", MFD_CLOEXEC);
  if (input < 0) std::abort();
  std::size_t written = 0;
  while (written < size) {
    const ssize_t done = ::write(input, data + written, size - written);
    if (done <= 0) std::abort();
    written += static_cast<std::size_t>(done);
  }
  ::lseek(input, 0, SEEK_SET);

  CModuleLibrary& library = korvex_test::BaseModuleLibrary();
  CModuleInstance instance(library);
  std::string error;
  if (!instance.Create(&error)) std::abort();
  CHtiStandIn standIn(CHtiMode{}, "/nonexistent-bmc");
  CHostSwitch hostSwitch(5);
  standIn.RegisterWith(hostSwitch);
  {
    CServeSession session(library, instance, hostSwitch, *g_Signals, input, g_Output);
    if (session.Run() != 0) std::abort();  // no signal ever comes
  }
  ::close(input);
  halvane::TakeTrace();
  return 0;
}
