// Parsing of em-host's command line: a table of the options (how each is
// written and where its value goes), a table of the commands, and the
// rules on which options go with which command.
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

// How an option's value is taken.
enum class OptionKind {
  kFlag,    // no value: sets m_Given
  kText,    // non-empty text, as given
  kPath,    // non-empty path, made absolute
  kNumber,  // unsigned number up to m_Max; sets m_Given too, when there is one
  kHti,     // a CHtiMode
};

struct COptionSpec {
  const char* m_Name;
  OptionKind m_Kind;
  const char* m_Empty = nullptr;  // kText, kPath: the error of an empty value
  std::string CEmHostOptions::*m_Text = nullptr;
  unsigned int CEmHostOptions::*m_Number = nullptr;
  unsigned int m_Max = 0xFFFFFFFFu;
  bool CEmHostOptions::*m_Given = nullptr;
};

// The options, each with where its value goes (O: CEmHostOptions, short
// for the table's sake).
using O = CEmHostOptions;
const COptionSpec kOptions[] = {
    {"--no-start", OptionKind::kFlag, nullptr, nullptr, nullptr, 0, &O::m_NoStart},
    {"--module", OptionKind::kText, "needs a path", &O::m_ModulePath},
    {"--tool-root", OptionKind::kPath, "needs a directory", &O::m_ToolRoot},
    {"--registry", OptionKind::kText, "needs a file", &O::m_RegistryFile},
    {"--cabinet", OptionKind::kNumber, nullptr, nullptr, &O::m_Cabinet},
    {"--bmc-dir", OptionKind::kPath, "needs a directory", &O::m_BmcDir},
    {"--trace", OptionKind::kText, "needs a file, or - for standard error", &O::m_TraceFile},
    {"--trace-level", OptionKind::kNumber, nullptr, nullptr, &O::m_TraceLevel, 5},
    {"--service-type", OptionKind::kNumber, nullptr, nullptr, &O::m_ServiceType},
    {"--hti", OptionKind::kHti},
    {"--timeout", OptionKind::kNumber, nullptr, nullptr, &O::m_TimeoutSec, 0xFFFFFFFFu,
     &O::m_TimeoutGiven},
    {"--tool-log", OptionKind::kPath, "needs a file", &O::m_ToolLog},
    {"--heartbeat", OptionKind::kNumber, nullptr, nullptr, &O::m_HeartbeatSec},
};

struct CCommandSpec {
  const char* m_Name;
  EmCommand m_Command;
  bool m_TakesName;
};

const CCommandSpec kCommands[] = {
    {"query", EmCommand::kQuery, false},      {"create", EmCommand::kCreate, false},
    {"transfer", EmCommand::kTransfer, true}, {"collect", EmCommand::kCollect, true},
    {"cleanup", EmCommand::kCleanup, false},  {"info", EmCommand::kInfo, false},
    {"serve", EmCommand::kServe, false}};

template <typename Spec, std::size_t N>
const Spec* Find(const Spec (&table)[N], const std::string& name) {
  for (const Spec& spec : table) {
    if (name == spec.m_Name) return &spec;
  }
  return nullptr;
}

// Stores value as option says; "" when it was taken, else the error.
std::string Store(const COptionSpec& option, const std::string& value, CEmHostOptions& out) {
  const std::string name = option.m_Name;
  switch (option.m_Kind) {
    case OptionKind::kFlag:
      out.*option.m_Given = true;
      return "";
    case OptionKind::kText:
    case OptionKind::kPath:
      if (value.empty()) return name + " " + option.m_Empty;
      out.*option.m_Text = option.m_Kind == OptionKind::kPath ? AbsolutePath(value) : value;
      return "";
    case OptionKind::kHti:
      if (CHtiMode::Parse(value, out.m_Hti)) return "";
      return "--hti takes copy, status:N, silent or absent, not \"" + value + "\"";
    case OptionKind::kNumber:
      break;
  }
  unsigned int number = 0;
  if (!ParseUnsigned(value, number))
    return name + " needs an unsigned number, not \"" + value + "\"";
  if (number > option.m_Max) return name + " takes 0 to " + std::to_string(option.m_Max);
  out.*option.m_Number = number;
  if (option.m_Given != nullptr) out.*option.m_Given = true;
  return "";
}

// What one argument was.
enum class Argument { kTaken, kHelp, kRestArePositional, kRefused };

// Takes args[i] (and its value, advancing i): an option into out, anything
// else into positional. *error says why on kRefused.
Argument TakeArgument(const std::vector<std::string>& args, std::size_t& i, CEmHostOptions& out,
                      std::vector<std::string>& positional, std::string& error) {
  std::string arg = args[i];
  if (arg == "-h" || arg == "--help") return Argument::kHelp;
  if (arg == "--") return Argument::kRestArePositional;
  if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
    if (!arg.empty() && arg[0] == '-' && arg != "-") {
      error = "unknown option " + arg;
      return Argument::kRefused;
    }
    positional.push_back(arg);
    return Argument::kTaken;
  }
  const std::size_t equals = arg.find('=');
  const bool inlineValue = equals != std::string::npos;
  std::string value = inlineValue ? arg.substr(equals + 1) : std::string();
  if (inlineValue) arg.erase(equals);
  const COptionSpec* option = Find(kOptions, arg);
  if (option == nullptr) {
    error = "unknown option " + arg;
  } else if (option->m_Kind == OptionKind::kFlag && inlineValue) {
    error = arg + " takes no value";
  } else if (option->m_Kind != OptionKind::kFlag && !inlineValue && i + 1 >= args.size()) {
    error = arg + " needs a value";
  } else {
    if (option->m_Kind != OptionKind::kFlag && !inlineValue) value = args[++i];
    error = Store(*option, value, out);
  }
  return error.empty() ? Argument::kTaken : Argument::kRefused;
}

// The command and its NAME from the positional arguments; "" or the error.
std::string TakeCommand(const std::vector<std::string>& positional, CEmHostOptions& out) {
  if (positional.empty()) return "no command given";
  const CCommandSpec* command = Find(kCommands, positional[0]);
  if (command == nullptr) return "unknown command \"" + positional[0] + "\"";
  out.m_Command = command->m_Command;
  out.m_CommandName = command->m_Name;
  const std::size_t expected = command->m_TakesName ? 2 : 1;
  if (positional.size() < expected) return out.m_CommandName + " needs a NAME";
  if (positional.size() > expected) {
    return "unexpected argument \"" + positional[expected] + "\" for " + out.m_CommandName;
  }
  if (command->m_TakesName) out.m_ArchiveName = positional[1];
  return "";
}

// Options that do not go together, or not with the command; "" or the error.
std::string CheckCombination(const CEmHostOptions& out) {
  const bool timeoutAllowed = out.m_Command == EmCommand::kCreate ||
                              out.m_Command == EmCommand::kTransfer ||
                              out.m_Command == EmCommand::kCollect;
  if (out.m_TimeoutGiven && !timeoutAllowed) {
    return "--timeout applies to create, transfer and collect only";
  }
  if (out.m_NoStart && out.m_Command != EmCommand::kServe) {
    return "--no-start applies to serve only";
  }
  return "";
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
         "  --module PATH             module library (default, beside em-host's directory:\n"
         "                            ../lib/<triplet>/em-korvex/libEM_KORVEX.so when\n"
         "                            installed, else ../lib/libEM_KORVEX.so)\n"
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
  std::string why;
  std::vector<std::string> positional;
  for (std::size_t i = 0; i < args.size() && why.empty(); ++i) {
    switch (TakeArgument(args, i, out, positional, why)) {
      case Argument::kHelp:
        out.m_Command = EmCommand::kHelp;
        return true;
      case Argument::kRestArePositional:
        positional.insert(positional.end(), args.begin() + static_cast<long>(i) + 1, args.end());
        i = args.size();
        break;
      case Argument::kTaken:
      case Argument::kRefused:
        break;
    }
  }
  if (why.empty() && !out.m_ToolRoot.empty() && !out.m_RegistryFile.empty()) {
    why = "--tool-root and --registry exclude each other";
  }
  if (why.empty()) why = TakeCommand(positional, out);
  if (why.empty()) why = CheckCombination(out);
  if (!why.empty()) {
    if (error != nullptr) *error = why;
    return false;
  }
  if (out.m_BmcDir.empty()) out.m_BmcDir = AbsolutePath("bmc");
  return true;
}
