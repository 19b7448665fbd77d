// Parsing of em-host's command line: a table of the options (how each is
// written, where its value goes, and what the documents say of it), a table
// of the commands, and the rules on which options go with which command.
// The tables are the one source of --help, the manual page and the shell
// completion (Docs.cpp), so what em-host takes and what it documents agree.
#include "host/emhost/cli/Options.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace {

enum class Number { kTaken, kNotANumber, kOutOfRange };

// Decimal or 0x-prefixed hexadecimal, the whole text, up to max.
Number ParseUnsigned(const std::string& text, unsigned int max, unsigned int& out) {
  if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') {
    return Number::kNotANumber;
  }
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (end == text.c_str() || *end != '\0') return Number::kNotANumber;
  if (errno == ERANGE || value > max) return Number::kOutOfRange;
  out = static_cast<unsigned int>(value);
  return Number::kTaken;
}

// How an option's value is taken.
enum class OptionKind {
  kFlag,    // no value: sets m_Given
  kText,    // non-empty text, as given
  kPath,    // non-empty path, made absolute
  kNumber,  // unsigned number up to m_Max; sets m_Given too, when there is one
  kHti,     // a CHtiMode
};

// One option: how it is written, where its value goes, and what --help, the
// manual page and the completion say of it.
struct COptionSpec {
  const char* m_Name;
  OptionKind m_Kind;
  const char* m_Value;     // the value's name in the documentation
  const char* m_Complete;  // CEmHostOptionInfo::m_Complete
  const char* m_Help;
  const char* m_Empty = nullptr;  // kText, kPath: the error of an empty value
  std::string CEmHostOptions::*m_Text = nullptr;
  unsigned int CEmHostOptions::*m_Number = nullptr;
  unsigned int m_Max = 0xFFFFFFFFu;
  bool CEmHostOptions::*m_Given = nullptr;
};

using O = CEmHostOptions;

COptionSpec Flag(const char* name, bool O::*given, const char* help) {
  COptionSpec spec{name, OptionKind::kFlag, "", "", help};
  spec.m_Given = given;
  return spec;
}

COptionSpec Text(const char* name, OptionKind kind, const char* value, const char* complete,
                 std::string O::*text, const char* empty, const char* help) {
  COptionSpec spec{name, kind, value, complete, help};
  spec.m_Text = text;
  spec.m_Empty = empty;
  return spec;
}

COptionSpec Count(const char* name, const char* value, unsigned int O::*number, unsigned int max,
                  const char* help, bool O::*given = nullptr) {
  COptionSpec spec{name, OptionKind::kNumber, value, "", help};
  spec.m_Number = number;
  spec.m_Max = max;
  spec.m_Given = given;
  return spec;
}

// --timeout's help below names the transfer's limit as a number.
static_assert(kMaxTransferTimeout == 65535, "change --timeout's help text with the limit");

// The options in the order --help lists them.
const COptionSpec kOptions[] = {
    Text("--module", OptionKind::kText, "PATH", "file", &O::m_ModulePath, "needs a path",
         "the module library to load (default: the one em-host --version names)"),
    Text("--tool-root", OptionKind::kPath, "DIR", "directory", &O::m_ToolRoot, "needs a directory",
         "the Korvex installation root, recorded in an in-memory configuration store"),
    Text("--registry", OptionKind::kText, "FILE", "file", &O::m_RegistryFile, "needs a file",
         "a configuration store file to load instead of --tool-root"),
    Count("--cabinet", "N", &O::m_Cabinet, 0xFFFFFFFFu,
          "this server's cabinet number, sent as \"CA\" (default 0)"),
    Text("--bmc-dir", OptionKind::kPath, "DIR", "directory", &O::m_BmcDir, "needs a directory",
         "the stand-in BMC directory (default ./bmc, created when missing, which em-host "
         "announces on standard error)"),
    Text("--trace", OptionKind::kText, "FILE", "file", &O::m_TraceFile,
         "needs a file, or - for standard error",
         "the module's trace, appended to FILE; - for standard error (the default)"),
    Count("--trace-level", "N", &O::m_TraceLevel, 5,
          "trace level 1 to 5; 0 turns the trace switch off (default 0)"),
    Count("--service-type", "N", &O::m_ServiceType, 0xFFFFFFFFu,
          "what the switch answers to GetServiceType (default 5)"),
    {"--hti", OptionKind::kHti, "MODE", "copy status: silent absent",
     "the file transfer: copy (default), status:N (answer N, copy nothing), silent (write no "
     "status), absent (no module serves it)"},
    Count("--timeout", "S", &O::m_TimeoutSec, 0xFFFFFFFFu,
          "create, collect: stop the module when no answer comes within S seconds; 0, the "
          "default, means no limit. transfer: the request's time limit \"TO\", 0 to 65535 "
          "(default, also for collect's transfer: 60 s + 1 s per 20 MB of the archive); 0 sets "
          "no limit of the copy's own, leaving only the module's 5 s wait for its answer",
          &O::m_TimeoutGiven),
    Flag("--no-start", &O::m_NoStart, "serve: do not start the module (a start control does)"),
    Text("--tool-log", OptionKind::kPath, "FILE", "file", &O::m_ToolLog, "needs a file",
         "where Korvex's output goes (default: Korvex.output.log in the tool root); bounded: "
         "at 1 MiB the older half moves to FILE.1"),
    Count("--heartbeat", "S", &O::m_HeartbeatSec, 0xFFFFFFFFu,
          "create, collect with output on a pipe or file: a progress line every S seconds "
          "(default 10; 0: none)"),
};

// The options that end the parsing at once; documented with the others.
const char* const kHelpOption = "--help";
const char* const kVersionOption = "--version";

struct CCommandSpec {
  const char* m_Name;
  EmCommand m_Command;
  bool m_TakesName;
  const char* m_Help;
};

const CCommandSpec kCommands[] = {
    {"query", EmCommand::kQuery, false,
     "is the Korvex tool installed? prints \"installed\" (exit 0) or \"not installed\" "
     "(exit 1)"},
    {"create", EmCommand::kCreate, false, "create the Korvex archive (--timeout S: its limit)"},
    {"transfer", EmCommand::kTransfer, true,
     "hand the archive to the BMC as NAME, after saying how old and how large it is, and "
     "whether a file NAME there was replaced"},
    {"collect", EmCommand::kCollect, true, "create, then transfer as NAME: the main job"},
    {"cleanup", EmCommand::kCleanup, false, "remove the archive and Korvex's data directory"},
    {"info", EmCommand::kInfo, false, "the module's name, properties and description"},
    {"serve", EmCommand::kServe, false,
     "a JSON-lines session on standard input and output (--no-start: do not start the "
     "module)"},
};

template <typename Spec, std::size_t N>
const Spec* Find(const Spec (&table)[N], const std::string& name) {
  for (const Spec& spec : table) {
    if (name == spec.m_Name) return &spec;
  }
  return nullptr;
}

std::string StoreNumber(const COptionSpec& option, const std::string& value, CEmHostOptions& out) {
  const std::string name = option.m_Name;
  unsigned int number = 0;
  switch (ParseUnsigned(value, option.m_Max, number)) {
    case Number::kNotANumber:
      return name + " needs an unsigned number, not \"" + value + "\"";
    case Number::kOutOfRange:
      return name + " " + value + " is out of range (0 to " + std::to_string(option.m_Max) + ")";
    case Number::kTaken:
      break;
  }
  out.*option.m_Number = number;
  if (option.m_Given != nullptr) out.*option.m_Given = true;
  return "";
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
  return StoreNumber(option, value, out);
}

// What one argument was.
enum class Argument { kTaken, kHelp, kVersion, kRestArePositional, kRefused };

// The arguments taken so far.
struct CParsed {
  CEmHostOptions& m_Out;
  std::vector<std::string> m_Positional;
  std::vector<const COptionSpec*> m_Seen;  // each option may be given once
};

// Takes option (and its value, from arg or args[i + 1], advancing i); ""
// or the error.
std::string TakeOption(const std::vector<std::string>& args, std::size_t& i, std::string arg,
                       CParsed& parsed) {
  const std::size_t equals = arg.find('=');
  const bool inlineValue = equals != std::string::npos;
  std::string value = inlineValue ? arg.substr(equals + 1) : std::string();
  if (inlineValue) arg.erase(equals);
  const COptionSpec* option = Find(kOptions, arg);
  if (option == nullptr) return "unknown option " + arg;
  if (option->m_Kind == OptionKind::kFlag && inlineValue) return arg + " takes no value";
  if (option->m_Kind != OptionKind::kFlag && !inlineValue && i + 1 >= args.size()) {
    return arg + " needs a value";
  }
  // A second value would silently win over the first: which one the
  // operator meant cannot be told.
  std::vector<const COptionSpec*>& seen = parsed.m_Seen;
  if (std::find(seen.begin(), seen.end(), option) != seen.end()) {
    return arg + " is given more than once";
  }
  seen.push_back(option);
  if (option->m_Kind != OptionKind::kFlag && !inlineValue) value = args[++i];
  return Store(*option, value, parsed.m_Out);
}

// Takes args[i] (and its value, advancing i): an option into the options,
// anything else into the positional arguments. error says why on kRefused.
Argument TakeArgument(const std::vector<std::string>& args, std::size_t& i, CParsed& parsed,
                      std::string& error) {
  const std::string& arg = args[i];
  if (arg == "-h" || arg == kHelpOption) return Argument::kHelp;
  if (arg == kVersionOption) return Argument::kVersion;
  if (arg == "--") return Argument::kRestArePositional;
  if (arg.size() >= 2 && arg.compare(0, 2, "--") == 0) {
    error = TakeOption(args, i, arg, parsed);
  } else if (!arg.empty() && arg[0] == '-' && arg != "-") {
    error = "unknown option " + arg;
  } else {
    parsed.m_Positional.push_back(arg);
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
  if (!command->m_TakesName) return "";
  // An empty NAME would only be refused by the BMC after the module ran.
  if (positional[1].empty()) return out.m_CommandName + " needs a NAME, not an empty one";
  out.m_ArchiveName = positional[1];
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
  if (out.m_TimeoutGiven && out.m_Command == EmCommand::kTransfer &&
      out.m_TimeoutSec > kMaxTransferTimeout) {
    return "--timeout " + std::to_string(out.m_TimeoutSec) +
           " is out of range for transfer (0 to " + std::to_string(kMaxTransferTimeout) + ")";
  }
  if (out.m_NoStart && out.m_Command != EmCommand::kServe) {
    return "--no-start applies to serve only";
  }
  return "";
}

// Takes every argument; kHelp, kVersion or kTaken, else kRefused with error.
Argument TakeArguments(const std::vector<std::string>& args, CParsed& parsed, std::string& error) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const Argument argument = TakeArgument(args, i, parsed, error);
    if (argument == Argument::kRestArePositional) {
      parsed.m_Positional.insert(parsed.m_Positional.end(), args.begin() + static_cast<long>(i) + 1,
                                 args.end());
      break;
    }
    if (argument != Argument::kTaken) return argument;
  }
  return Argument::kTaken;
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
  return static_cast<unsigned int>(std::min<unsigned long long>(seconds, kMaxTransferTimeout));
}

std::vector<CEmHostOptionInfo> EmHostOptionInfo() {
  std::vector<CEmHostOptionInfo> infos;
  for (const COptionSpec& option : kOptions) {
    infos.push_back({option.m_Name, option.m_Value, option.m_Help, option.m_Complete});
  }
  infos.push_back({kVersionOption, "", "em-host's version and the module library it loads", ""});
  infos.push_back({kHelpOption, "", "this text (also -h)", ""});
  return infos;
}

std::vector<CEmHostCommandInfo> EmHostCommandInfo() {
  std::vector<CEmHostCommandInfo> infos;
  for (const CCommandSpec& command : kCommands) {
    infos.push_back({command.m_Name, command.m_TakesName ? "NAME" : "", command.m_Help});
  }
  return infos;
}

bool ParseEmHostOptions(const std::vector<std::string>& args, CEmHostOptions& out,
                        std::string* error) {
  CParsed parsed{out, {}, {}};
  std::string why;
  switch (TakeArguments(args, parsed, why)) {
    case Argument::kHelp:
      out.m_Command = EmCommand::kHelp;
      return true;
    case Argument::kVersion:
      out.m_Command = EmCommand::kVersion;
      return true;
    default:
      break;
  }
  if (why.empty() && !out.m_ToolRoot.empty() && !out.m_RegistryFile.empty()) {
    why = "--tool-root and --registry exclude each other";
  }
  if (why.empty()) why = TakeCommand(parsed.m_Positional, out);
  if (why.empty()) why = CheckCombination(out);
  if (!why.empty()) {
    if (error != nullptr) *error = why;
    return false;
  }
  if (out.m_BmcDir.empty()) {
    out.m_BmcDir = AbsolutePath("bmc");
    out.m_BmcDirDefault = true;
  }
  return true;
}
