// em-host's commands: what main() runs once the options are parsed, the
// signals are blocked and the host services are set up.
#pragma once

#include "host/emhost/cli/Options.h"

#include <string>

class CSignalWatch;

// em-host's exit statuses besides 0 and 128 + signal number.
constexpr int kExitStatus = 1;   // the final status is not 0; "not installed" for query
constexpr int kExitUsage = 2;    // bad command line
constexpr int kExitSetup = 3;    // the module cannot be loaded, created or started
constexpr int kExitTimeout = 4;  // no answer in time; the module was stopped
constexpr int kExitBusy = 75;    // another collection runs: try again later (EX_TEMPFAIL)

// Runs the command of options; returns the exit status.
int RunEmHostCommand(const CEmHostOptions& options, CSignalWatch& signals);

// The Korvex installation root recorded in the configuration store, read
// the way the module reads it, always ending in "/"; false when none.
bool ConfiguredToolRoot(std::string& root);
