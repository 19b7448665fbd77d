// Names, opcodes, status values and fixed file names of the diagnostic
// archive module, shared by its sources.
#pragma once

// Ninety dashes: the rule line framing the start and stop banners.
#define EM_KORVEX_RULE                                                           \
  "----------------------------------------------------------------------------" \
  "--------------"

namespace korvex {

constexpr const char* kModuleName = "EM_KORVEX";
constexpr const char* kModuleDescription = "Korvex extension module";

// Request opcodes of the module's family, and the HTI module's file transfer.
constexpr unsigned int kOpcodeFamilyMask = 0xFFFFFFF0u;
constexpr unsigned int kOpcodeFamily = 0x3400u;
constexpr unsigned int kOpcodeIsInstalled = 0x3400u;
constexpr unsigned int kOpcodeCreateArchive = 0x3401u;
constexpr unsigned int kOpcodeTransferArchive = 0x3402u;
constexpr unsigned int OPCODE_HTI_FILE_TRANSFER = 0xF052u;
constexpr unsigned int KORVEX_FILE_TYPE = 2;  // "FileType" of a Korvex archive

// Cabinet number that addresses every cabinet.
constexpr unsigned int kAllCabinets = 0xFFFFFFFFu;

// Status values written into "ST".
constexpr unsigned int kStatusDone = 0;
constexpr unsigned int kStatusTaken = 1;
constexpr unsigned int kStatusNoArchive = 3;
constexpr unsigned int kStatusToolRunning = 5;
constexpr unsigned int kStatusJobFailed = 6;
constexpr unsigned int kStatusException = 13;
constexpr unsigned int kStatusOtherCabinet = 20;
constexpr unsigned int kStatusQueued = 22;

// Setup action that cleans up the archives.
constexpr unsigned int kSetupActionCleanup = 4;

// Files.
constexpr const char* kProductName = "Korvex";
constexpr const char* kSetupKey = "Setup";
constexpr const char* kFileRootValue = "FileRoot";
constexpr const char* kExecutableName = "Korvex";
constexpr const char* kArchiveName = "Korvex_Data.zip";
constexpr const char* kDataDirectory = "/var/log/Korvex";
constexpr const char* kToolProcessName = "Korvex";

// AsyncRequest time-out handed to the switch for the file transfer.
constexpr unsigned int kTransferSwitchTimeout = 5000;
// How long Stop waits for a terminated tool, in milliseconds.
constexpr unsigned int kToolExitWaitMs = 2000;
// Exit code Stop gives the tool it terminates.
constexpr unsigned int kToolTerminatedExitCode = 1;

}  // namespace korvex
