// em-host's --help, manual page and bash completion (see Docs.h).
#include "host/emhost/cli/Docs.h"

#include "host/emhost/cli/EmHost.h"
#include "host/emhost/cli/Options.h"

#include <sstream>

#ifndef KORVEX_VERSION
#error "KORVEX_VERSION (the project's version) must be defined by the build"
#endif

namespace {

const char* const kSynopsis = "em-host [options] COMMAND [NAME]";
const char* const kSummary = "run the Korvex diagnostic-archive module without its host service";

const char* const kDescription[] = {
    "em-host loads the Korvex diagnostic-archive module (libEM_KORVEX.so), hosts it the way the "
    "server-management service does - the host services, a message switch and a stand-in BMC "
    "file transfer that stores into a plain directory - and runs one COMMAND against it.",
    "Options may stand before or after the COMMAND; each may be given once. Numbers are decimal "
    "or 0x hexadecimal. A usage error prints one line saying what was wrong and exits with 2.",
};

// Column of --help's descriptions, and its width.
constexpr std::size_t kHelpColumn = 26;
constexpr std::size_t kHelpWidth = 79;

// text broken into lines of at most width - indent characters (a longer
// word stands alone), each line after the first indented by indent.
std::string Wrap(const std::string& text, std::size_t indent, std::size_t width) {
  std::istringstream words(text);
  std::string word;
  std::string out;
  std::size_t column = indent;
  bool first = true;
  while (words >> word) {
    if (!first && column + 1 + word.size() > width) {
      out += "\n" + std::string(indent, ' ');
      column = indent;
      first = true;
    }
    if (!first) {
      out += ' ';
      ++column;
    }
    out += word;
    column += word.size();
    first = false;
  }
  return out;
}

// "  TERM      text", the text wrapped in its column.
std::string HelpRow(const std::string& term, const std::string& text) {
  std::string row = "  " + term;
  if (row.size() + 1 > kHelpColumn) {
    row += "\n" + std::string(kHelpColumn, ' ');
  } else {
    row += std::string(kHelpColumn - row.size(), ' ');
  }
  return row + Wrap(text, kHelpColumn, kHelpWidth) + "\n";
}

std::string Joined(const std::string& first, const std::string& second) {
  return second.empty() ? first : first + " " + second;
}

// roff: a backslash is written \e, every hyphen \- (option names must come
// out as minus signs to be typed), and a line must not start with a control
// character.
std::string Roff(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out.insert(0, "\\&");
  return out;
}

std::string Bold(const std::string& text) { return "\\fB" + Roff(text) + "\\fR"; }
std::string Italic(const std::string& text) { return "\\fI" + Roff(text) + "\\fR"; }

// A term with its value's name: bold name, italic value.
std::string Term(const std::string& name, const std::string& value) {
  return value.empty() ? Bold(name) : Bold(name) + " " + Italic(value);
}

void ManRows(std::ostringstream& man, const std::vector<CEmHostDocRow>& rows, bool code) {
  for (const CEmHostDocRow& row : rows) {
    man << ".TP\n"
        << (code ? Bold(row.m_Key) : Italic(row.m_Key)) << "\n"
        << Roff(row.m_Text) << "\n";
  }
}

// The names of the options with a value, as a case pattern ("--a|--b"):
// all of them, or those whose value completes as complete.
std::string OptionsWithValue(const std::vector<CEmHostOptionInfo>& options,
                             const std::string* complete = nullptr) {
  std::string names;
  for (const CEmHostOptionInfo& option : options) {
    if (option.m_Value.empty() || (complete != nullptr && option.m_Complete != *complete)) {
      continue;
    }
    names += (names.empty() ? "" : "|") + option.m_Name;
  }
  return names;
}

// One branch of a case statement; none when no option falls under it.
std::string CaseBranch(const std::string& pattern, const std::string& action) {
  return pattern.empty() ? std::string() : "    " + pattern + ")\n      " + action + " ;;\n";
}

// The case branches completing the value after an option.
std::string ValueBranches(const std::vector<CEmHostOptionInfo>& options) {
  const std::string file = "file";
  const std::string directory = "directory";
  const std::string number;
  std::string branches = CaseBranch(OptionsWithValue(options, &file),
                                    "compopt -o filenames 2>/dev/null; _em_host_reply -f; return") +
                         CaseBranch(OptionsWithValue(options, &directory),
                                    "compopt -o filenames 2>/dev/null; _em_host_reply -d; return");
  for (const CEmHostOptionInfo& option : options) {
    const std::string& words = option.m_Complete;
    if (option.m_Value.empty() || words.empty() || words == file || words == directory) continue;
    branches += CaseBranch(option.m_Name, "_em_host_reply -W '" + words + "'; return");
  }
  // A number: nothing to offer, and no option or command either.
  return branches + CaseBranch(OptionsWithValue(options, &number), "return");
}

}  // namespace

std::string EmHostVersion() { return KORVEX_VERSION; }

std::vector<CEmHostDocRow> EmHostExitStatuses() {
  return {
      {"0", "done: the final status is 0 (query: the tool is installed)"},
      {std::to_string(kExitStatus),
       "the final status is not 0 (standard error says what happened: for a failed creation how "
       "the tool ended and the last lines of its log); query: the tool is not installed; "
       "cleanup: something is left"},
      {std::to_string(kExitUsage), "usage error"},
      {std::to_string(kExitSetup),
       "the module could not be loaded, created or started (tool missing, no root configured), "
       "the trace file or configuration store could not be opened, or an unexpected answer"},
      {std::to_string(kExitTimeout),
       "no answer within --timeout: the tool's processes were ended and the module stopped"},
      {std::to_string(kExitBusy),
       "busy: another collection runs, or another em-host holds the tool root's lock; try "
       "again later"},
      {"128+N",
       "ended by signal N (130 Ctrl-C, 143 SIGTERM, 129 SIGHUP, 131 SIGQUIT): the tool's "
       "processes were ended, then the module stopped"},
  };
}

std::vector<CEmHostDocRow> EmHostFiles() {
  return {
      {"ROOT/Korvex",
       "the Korvex tool under its installation root (--tool-root or the "
       "configuration store); as root only a tool nobody else can change is run"},
      {"ROOT/Korvex_Data.zip", "the archive the tool writes"},
      {"ROOT/Korvex.output.log", "the tool's output (--tool-log), the older half in .1"},
      {"BMCDIR/NAME, BMCDIR/NAME.sha256",
       "the transferred archive and its checksum line, which sha256sum -c reads; an earlier "
       "file of the same name is replaced, which transfer and collect say"},
      {"./bmc", "the default BMC directory, created (and announced) when missing"},
      {"/var/log/Korvex", "Korvex's data directory, removed by cleanup"},
  };
}

std::vector<CEmHostDocRow> EmHostExamples() {
  return {
      {"em-host --tool-root /opt/korvex collect incident-42.zip",
       "create an archive and hand it to the BMC directory ./bmc as incident-42.zip"},
      {"em-host --tool-root /opt/korvex --bmc-dir /srv/bmc collect host1.zip --timeout 900",
       "the same into /srv/bmc, ending the tool when it has not finished after 15 minutes"},
      {"em-host --tool-root /opt/korvex transfer again.zip",
       "send the archive left by the last creation once more, under another name"},
      {"em-host --registry /etc/korvex.reg cleanup",
       "remove the archive and Korvex's data directory, the tool root read from a file"},
  };
}

std::string EmHostHelp() {
  std::ostringstream help;
  help << "usage: " << kSynopsis << "\n" << kSummary << "\n\ncommands:\n";
  for (const CEmHostCommandInfo& command : EmHostCommandInfo()) {
    help << HelpRow(Joined(command.m_Name, command.m_Arguments), command.m_Help);
  }
  help << "\noptions:\n";
  for (const CEmHostOptionInfo& option : EmHostOptionInfo()) {
    help << HelpRow(Joined(option.m_Name, option.m_Value), option.m_Help);
  }
  help << "\nexit statuses:\n";
  for (const CEmHostDocRow& row : EmHostExitStatuses()) help << HelpRow(row.m_Key, row.m_Text);
  help << "\nMore in em-host(1).\n";
  return help.str();
}

std::string EmHostManPage(const std::string& date) {
  std::ostringstream man;
  man << ".TH EM\\-HOST 1 \"" << date << "\" \"em-korvex " << EmHostVersion()
      << "\" \"User Commands\"\n"
      << ".SH NAME\nem\\-host \\- " << Roff(kSummary) << "\n"
      << ".SH SYNOPSIS\n.B em\\-host\n[\\fIoptions\\fR] \\fICOMMAND\\fR [\\fINAME\\fR]\n"
      << ".SH DESCRIPTION\n";
  for (const char* paragraph : kDescription) man << ".PP\n" << Roff(paragraph) << "\n";
  man << ".SH COMMANDS\n";
  for (const CEmHostCommandInfo& command : EmHostCommandInfo()) {
    man << ".TP\n"
        << Term(command.m_Name, command.m_Arguments) << "\n"
        << Roff(command.m_Help) << "\n";
  }
  man << ".SH OPTIONS\n";
  for (const CEmHostOptionInfo& option : EmHostOptionInfo()) {
    man << ".TP\n" << Term(option.m_Name, option.m_Value) << "\n" << Roff(option.m_Help) << "\n";
  }
  man << ".SH \"EXIT STATUS\"\n";
  ManRows(man, EmHostExitStatuses(), true);
  man << ".SH FILES\n";
  ManRows(man, EmHostFiles(), false);
  man << ".SH EXAMPLES\n";
  for (const CEmHostDocRow& row : EmHostExamples()) {
    man << ".PP\n" << Roff(row.m_Text) << ":\n.PP\n.RS\n.nf\n" << Roff(row.m_Key) << "\n.fi\n.RE\n";
  }
  man << ".SH \"SEE ALSO\"\n.BR sha256sum (1)\n";
  return man.str();
}

std::string EmHostBashCompletion() {
  const std::vector<CEmHostOptionInfo> options = EmHostOptionInfo();
  std::string optionWords;
  for (const CEmHostOptionInfo& option : options) {
    optionWords += (optionWords.empty() ? "" : " ") + option.m_Name;
  }
  std::string commands;
  for (const CEmHostCommandInfo& command : EmHostCommandInfo()) {
    commands += (commands.empty() ? "" : " ") + command.m_Name;
  }
  const std::string withValue = OptionsWithValue(options);
  std::ostringstream bash;
  bash << "# bash completion for em-host, written from em-host's own option table.\n"
       << "\n"
       << "# COMPREPLY from compgen's lines: names with blanks stay whole, and\n"
       << "# none is taken for a pattern.\n"
       << "_em_host_reply() {\n"
       << "  mapfile -t COMPREPLY < <(compgen \"$@\" -- \"$cur\")\n"
       << "}\n"
       << "\n"
       << "_em_host() {\n"
       << "  local cur=${COMP_WORDS[COMP_CWORD]} i=1 word command= prev=\n"
       << "  ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}\n"
       << "  # --option=value arrives as three words where '=' breaks words.\n"
       << "  [[ $cur == = ]] && cur=\n"
       << "  [[ $prev == = && COMP_CWORD -gt 1 ]] && prev=${COMP_WORDS[COMP_CWORD - 2]}\n"
       << "  COMPREPLY=()\n"
       << "  case $prev in\n"
       << ValueBranches(options) << "  esac\n"
       << "  # The command, if one is given already; each option is offered once.\n"
       << "  local given=\" \"\n"
       << "  while ((i < COMP_CWORD)); do\n"
       << "    word=${COMP_WORDS[i]}\n"
       << "    case $word in\n"
       << "      --) [[ -z $command ]] && command=${COMP_WORDS[i + 1]}; break ;;\n"
       << "      -*) given+=\"${word%%=*} \" ;;\n"
       << "      =) ;;\n"
       << "      *) case ${COMP_WORDS[i - 1]} in\n"
       << "           " << withValue << "|=) ;;\n"
       << "           *) [[ -z $command ]] && command=$word ;;\n"
       << "         esac ;;\n"
       << "    esac\n"
       << "    ((i++))\n"
       << "  done\n"
       << "  if [[ $cur == -* ]]; then\n"
       << "    local offer= option\n"
       << "    for option in " << optionWords << "; do\n"
       << "      [[ $given == *\" $option \"* ]] || offer+=\"$option \"\n"
       << "    done\n"
       << "    _em_host_reply -W \"$offer\"\n"
       << "  elif [[ -z $command ]]; then\n"
       << "    _em_host_reply -W '" << commands << "'\n"
       << "  fi\n"
       << "}\n"
       << "complete -F _em_host em-host\n";
  return bash.str();
}
