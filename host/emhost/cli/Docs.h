// em-host's documentation as it ships: the --help text, the manual page
// em-host(1) and the bash completion, all written from the option and
// command tables of Options.h and the reference below, so that what the
// program accepts and what its documents say are one and the same.
#pragma once

#include <string>
#include <vector>

// "0.1.0": the project's version.
std::string EmHostVersion();

// One row of a two-column reference: an exit status and its meaning, a
// file and what it is, an example command and what it does.
struct CEmHostDocRow {
  std::string m_Key;
  std::string m_Text;
};
std::vector<CEmHostDocRow> EmHostExitStatuses();
std::vector<CEmHostDocRow> EmHostFiles();
std::vector<CEmHostDocRow> EmHostExamples();

// The text of --help.
std::string EmHostHelp();
// em-host(1) in man(7) markup; date ("2026-11-23") goes into its title line.
std::string EmHostManPage(const std::string& date);
// A bash script defining the completion of em-host's commands, options and
// option values.
std::string EmHostBashCompletion();
