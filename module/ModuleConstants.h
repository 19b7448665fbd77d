// What is the module's own and no concern of em-host: its name and
// description, the rule line of its banners and its time-outs. The protocol's
// facts (opcodes, statuses, file and key names) are in module/Protocol.h,
// which this header brings along for the module's sources.
#pragma once

#include "module/Protocol.h"

// Ninety dashes: the rule line framing the start and stop banners.
#define EM_KORVEX_RULE                                                           \
  "----------------------------------------------------------------------------" \
  "--------------"

namespace korvex {

constexpr const char* kModuleName = "EM_KORVEX";
constexpr const char* kModuleDescription = "Korvex extension module";

// AsyncRequest time-out handed to the switch for the file transfer.
constexpr unsigned int kTransferSwitchTimeout = 5000;
// How long Stop waits for a terminated tool, in milliseconds.
constexpr unsigned int kToolExitWaitMs = 2000;
// Exit code Stop gives the tool it terminates.
constexpr unsigned int kToolTerminatedExitCode = 1;

}  // namespace korvex
