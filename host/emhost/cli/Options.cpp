// Parsing of em-host's command line.
#include "host/emhost/cli/Options.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace {

// Decimal or 0x-prefixed hexadecimal, the whole text, within 32 bits.
bool ParseUnsigned(const std::string& text, unsigned int& out) {
  if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (errno != 0 || end == text.c_str() || *end != '\0' || value > 0xFFFFFFFFull) return false;
  out = static_cast<unsigned int>(value);
  return true;
}

}  // namespace

std::string AbsolutePath(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  char cwd[PATH_MAX];
  if (::getcwd(cwd, sizeof(cwd)) == nullptr) return path;
  std::string base(cwd);
  std::string rest = path;
  while (rest.compare(0, 2, "./") == 0) rest.erase(0, 2);
  if (rest == ".") return base;
  return base == "/" ? "/" + rest : base + "/" + rest;
}

unsigned int DefaultTransferTimeout(unsigned long long archiveBytes) {
  const unsigned long long seconds =
      60ull + (archiveBytes + kSlowDiskBytesPerSec - 1) / kSlowDiskBytesPerSec;
  return static_cast<unsigned int>(std::min(seconds, 65535ull));
}

const char* EmHostUsage() {
  return "usage: em-host [options] COMMAND [arguments]\n"
         "\n"
         "commands:\n"
         "  query                     is the Korvex tool installed? prints \"installed\" (exit 0)\n"
         "                            or \"not installed\" (exit 1)\n"
         "  create [--timeout S]      create the Korvex archive\n"
         "  transfer NAME [--timeout S]  hand the archive to the BMC as NAME\n"
         "  collect NAME [--timeout S]   create, then transfer: the main job\n"
         "  cleanup                   remove the archive and Korvex's data directory\n"
         "  info                      module name, properties and description\n"
         "  serve [--no-start]        JSON-lines session on standard input/output\n"
         "\n"
         "options:\n"
         "  --module PATH             module library (default: ../lib/libEM_KORVEX.so beside\n"
         "                            em-host's directory)\n"
         "  --tool-root DIR           the Korvex installation root (in-memory configuration)\n"
         "  --registry FILE           the configuration store file to load instead\n"
         "  --cabinet N               this server's cabinet number (default 0)\n"
         "  --bmc-dir DIR             the stand-in BMC directory (default ./bmc)\n"
         "  --trace FILE              trace output file, appended; - for standard error\n"
         "  --trace-level N           1..5; 0 turns the trace switch off (default)\n"
         "  --service-type N          what the switch reports as service type (default 5)\n"
         "  --hti MODE                file transfer: copy (default), status:N, silent, absent\n"
         "  --timeout S               create/collect: stop the module after S seconds without\n"
         "                            an answer (default: no limit); transfer: the time limit\n"
         "                            \"TO\" of the request (default, also for collect's\n"
         "                            transfer: 60 s + 1 s per 20 MB of the archive)\n"
         "  --no-start                serve: do not start the module (use a start control)\n"
         "  --tool-log FILE           where Korvex's output goes (default: Korvex.output.log\n"
         "                            in the tool root; bounded, the older half in FILE.1)\n"
         "  --heartbeat S             create/collect with output on a pipe or file: a\n"
         "                            progress line every S seconds (default 10; 0: none)\n"
         "  -h, --help                this text\n";
}

bool ParseEmHostOptions(const std::vector<std::string>& args, CEmHostOptions& out,
                        std::string* error) {
  auto fail = [error](const std::string& why) {
    if (error != nullptr) *error = why;
    return false;
  };
  std::vector<std::string> positional;
  for (std::size_t i = 0; i < args.size(); ++i) {
    std::string arg = args[i];
    if (arg == "-h" || arg == "--help") {
      out.m_Command = EmCommand::kHelp;
      return true;
    }
    if (arg == "--") {
      positional.insert(positional.end(), args.begin() + static_cast<long>(i) + 1, args.end());
      break;
    }
    if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      if (!arg.empty() && arg[0] == '-' && arg != "-") return fail("unknown option " + arg);
      positional.push_back(arg);
      continue;
    }
    std::string value;
    bool hasInlineValue = false;
    const std::size_t equals = arg.find('=');
    if (equals != std::string::npos) {
      value = arg.substr(equals + 1);
      arg.erase(equals);
      hasInlineValue = true;
    }
    if (arg == "--no-start") {
      if (hasInlineValue) return fail("--no-start takes no value");
      out.m_NoStart = true;
      continue;
    }
    static const char* const kWithValue[] = {
        "--module",      "--tool-root",    "--registry", "--cabinet", "--bmc-dir",  "--trace",
        "--trace-level", "--service-type", "--hti",      "--timeout", "--tool-log", "--heartbeat"};
    bool known = false;
    for (const char* name : kWithValue) known = known || arg == name;
    if (!known) return fail("unknown option " + arg);
    if (!hasInlineValue) {
      if (i + 1 >= args.size()) return fail(arg + " needs a value");
      value = args[++i];
    }
    if (arg == "--module") {
      if (value.empty()) return fail("--module needs a path");
      out.m_ModulePath = value;
    } else if (arg == "--tool-root") {
      if (value.empty()) return fail("--tool-root needs a directory");
      out.m_ToolRoot = AbsolutePath(value);
    } else if (arg == "--registry") {
      if (value.empty()) return fail("--registry needs a file");
      out.m_RegistryFile = value;
    } else if (arg == "--bmc-dir") {
      if (value.empty()) return fail("--bmc-dir needs a directory");
      out.m_BmcDir = AbsolutePath(value);
    } else if (arg == "--tool-log") {
      if (value.empty()) return fail("--tool-log needs a file");
      out.m_ToolLog = AbsolutePath(value);
    } else if (arg == "--trace") {
      if (value.empty()) return fail("--trace needs a file, or - for standard error");
      out.m_TraceFile = value;
    } else if (arg == "--hti") {
      if (!CHtiMode::Parse(value, out.m_Hti)) {
        return fail("--hti takes copy, status:N, silent or absent, not \"" + value + "\"");
      }
    } else {
      unsigned int number = 0;
      if (!ParseUnsigned(value, number)) {
        return fail(arg + " needs an unsigned number, not \"" + value + "\"");
      }
      if (arg == "--cabinet") {
        out.m_Cabinet = number;
      } else if (arg == "--trace-level") {
        if (number > 5) return fail("--trace-level takes 0 to 5");
        out.m_TraceLevel = number;
      } else if (arg == "--heartbeat") {
        out.m_HeartbeatSec = number;
      } else if (arg == "--service-type") {
        out.m_ServiceType = number;
      } else {  // --timeout
        out.m_TimeoutSec = number;
        out.m_TimeoutGiven = true;
      }
    }
  }
  if (!out.m_ToolRoot.empty() && !out.m_RegistryFile.empty()) {
    return fail("--tool-root and --registry exclude each other");
  }
  if (positional.empty()) return fail("no command given");

  struct CCommandName {
    const char* m_Name;
    EmCommand m_Command;
    bool m_TakesName;
  };
  static const CCommandName kCommands[] = {
      {"query", EmCommand::kQuery, false},      {"create", EmCommand::kCreate, false},
      {"transfer", EmCommand::kTransfer, true}, {"collect", EmCommand::kCollect, true},
      {"cleanup", EmCommand::kCleanup, false},  {"info", EmCommand::kInfo, false},
      {"serve", EmCommand::kServe, false}};
  const CCommandName* command = nullptr;
  for (const CCommandName& candidate : kCommands) {
    if (positional[0] == candidate.m_Name) command = &candidate;
  }
  if (command == nullptr) return fail("unknown command \"" + positional[0] + "\"");
  out.m_Command = command->m_Command;
  out.m_CommandName = command->m_Name;
  const std::size_t expected = command->m_TakesName ? 2 : 1;
  if (positional.size() < expected) return fail(out.m_CommandName + " needs a NAME");
  if (positional.size() > expected) {
    return fail("unexpected argument \"" + positional[expected] + "\" for " + out.m_CommandName);
  }
  if (command->m_TakesName) out.m_ArchiveName = positional[1];

  const bool timeoutAllowed = out.m_Command == EmCommand::kCreate ||
                              out.m_Command == EmCommand::kTransfer ||
                              out.m_Command == EmCommand::kCollect;
  if (out.m_TimeoutGiven && !timeoutAllowed) {
    return fail("--timeout applies to create, transfer and collect only");
  }
  if (out.m_NoStart && out.m_Command != EmCommand::kServe) {
    return fail("--no-start applies to serve only");
  }
  if (out.m_BmcDir.empty()) out.m_BmcDir = AbsolutePath("bmc");
  return true;
}
