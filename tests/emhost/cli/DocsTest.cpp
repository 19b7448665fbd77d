// em-host's documents: --help, the manual page and the bash completion the
// build writes, and the README's tables, all naming exactly the commands and
// options the parser takes.
#include "host/emhost/cli/Docs.h"
#include "host/emhost/cli/Options.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace {

using korvex_test::CTempDir;
using korvex_test::ReadFile;
using korvex_test::WriteFile;

const std::string kManPage = EMHOST_MAN_PAGE;
const std::string kCompletion = EMHOST_COMPLETION;
const std::string kReadme = EMHOST_README;

struct CRun {
  int m_Exit = -1;
  std::string m_Out;  // standard output and error together
};

// Runs command with /bin/sh; a program that cannot run gives exit 127.
CRun Shell(const std::string& command) {
  CRun run;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return run;
  char buffer[4096];
  std::size_t got = 0;
  while ((got = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) run.m_Out.append(buffer, got);
  const int status = ::pclose(pipe);
  run.m_Exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

std::string Quoted(const std::string& text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::set<std::string> OptionNames() {
  std::set<std::string> names;
  for (const CEmHostOptionInfo& option : EmHostOptionInfo()) names.insert(option.m_Name);
  return names;
}

std::set<std::string> CommandNames() {
  std::set<std::string> names;
  for (const CEmHostCommandInfo& command : EmHostCommandInfo()) names.insert(command.m_Name);
  return names;
}

// The completion's answer for the words of a command line, the last one
// being completed, one word per line, sorted.
std::set<std::string> Complete(const std::vector<std::string>& words, const std::string& cwd = "") {
  std::string array;
  for (const std::string& word : words) array += " " + Quoted(word);
  const std::string script = (cwd.empty() ? "" : "cd " + Quoted(cwd) + " && ") + "source " +
                             Quoted(kCompletion) + " && COMP_WORDS=(" + array +
                             ") && COMP_CWORD=" + std::to_string(words.size() - 1) +
                             " && { _em_host; printf '%s\\n' \"${COMPREPLY[@]}\"; }";
  const CRun run = Shell("bash --norc --noprofile -c " + Quoted(script));
  EXPECT_EQ(run.m_Exit, 0) << run.m_Out;
  std::set<std::string> lines;
  std::istringstream in(run.m_Out);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) lines.insert(line);
  }
  return lines;
}

// The first cells of the README's table whose header row starts with
// header: each backticked word there that starts with prefix.
std::set<std::string> ReadmeTable(const std::string& header, const std::string& prefix) {
  std::istringstream readme(ReadFile(kReadme));
  std::set<std::string> names;
  bool inTable = false;
  const std::regex word("`([^` ]+)");
  for (std::string line; std::getline(readme, line);) {
    if (line.rfind("| " + header + " |", 0) == 0) {
      inTable = true;
      continue;
    }
    if (!inTable) continue;
    if (line.empty() || line[0] != '|') break;
    const std::string cell = line.substr(1, line.find('|', 1) - 1);
    for (std::sregex_iterator it(cell.begin(), cell.end(), word), end; it != end; ++it) {
      const std::string name = (*it)[1];
      if (name.rfind(prefix, 0) == 0) names.insert(name);
    }
  }
  return names;
}

}  // namespace

TEST(EmHostDocs, HelpListsEveryCommandOptionAndExitStatusWithinEightyColumns) {
  const std::string help = EmHostHelp();
  for (const CEmHostCommandInfo& command : EmHostCommandInfo()) {
    EXPECT_NE(help.find("\n  " + command.m_Name + " "), std::string::npos) << command.m_Name;
  }
  for (const CEmHostOptionInfo& option : EmHostOptionInfo()) {
    const std::string term =
        option.m_Value.empty() ? option.m_Name : option.m_Name + " " + option.m_Value;
    EXPECT_NE(help.find("\n  " + term + " "), std::string::npos) << term;
  }
  for (const std::string status : {"0", "1", "2", "3", "4", "75", "128+N"}) {
    EXPECT_NE(help.find("\n  " + status + " "), std::string::npos) << status;
  }
  // --timeout 0 is documented for both of its meanings.
  EXPECT_NE(help.find("0, the default, means no limit"), std::string::npos);
  std::istringstream lines(help);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 79u) << line;
}

TEST(EmHostDocs, TheBuiltManPageIsTheGeneratedOneAndGroffTakesItWithoutWarnings) {
  const std::string page = ReadFile(kManPage);
  ASSERT_FALSE(page.empty()) << kManPage;
  const std::string title = page.substr(0, page.find('\n'));
  EXPECT_NE(title.find("\"em-korvex " + EmHostVersion() + "\""), std::string::npos) << title;
  // Everything after the title line (which holds the build's date) is what
  // the tables give now.
  const std::string generated = EmHostManPage("x");
  EXPECT_EQ(page.substr(page.find('\n')), generated.substr(generated.find('\n')));
  const CRun lint = Shell("groff -man -Tutf8 -ww -z " + Quoted(kManPage));
  EXPECT_EQ(lint.m_Exit, 0);
  EXPECT_EQ(lint.m_Out, "");
  // Rendered (wide lines, plain ASCII): every term is there as typed.
  const CRun text = Shell("groff -man -Tascii -P-cbou -rLL=300n " + Quoted(kManPage));
  ASSERT_EQ(text.m_Exit, 0) << text.m_Out;
  for (const CEmHostOptionInfo& option : EmHostOptionInfo()) {
    const std::string term =
        option.m_Value.empty() ? option.m_Name : option.m_Name + " " + option.m_Value;
    EXPECT_NE(text.m_Out.find(term), std::string::npos) << term;
  }
  for (const std::string section :
       {"NAME", "SYNOPSIS", "COMMANDS", "OPTIONS", "EXIT STATUS", "FILES", "EXAMPLES"}) {
    EXPECT_NE(text.m_Out.find("\n" + section + "\n"), std::string::npos) << section;
  }
  EXPECT_NE(text.m_Out.find("transfer NAME"), std::string::npos);
}

TEST(EmHostDocs, RoffControlCharactersInTheTextAreEscaped) {
  const std::string page = EmHostManPage("2026-01-01");
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);) {
    // Only macro lines start with a dot; no text line starts with a quote.
    if (line[0] == '.') {
      EXPECT_TRUE(std::regex_match(line, std::regex("\\.([A-Z]{1,2}|nf|fi)( .*)?"))) << line;
    }
    EXPECT_NE(line[0], '\'') << line;
    EXPECT_EQ(line.find("--"), std::string::npos) << "an unescaped hyphen: " << line;
  }
}

TEST(EmHostDocs, TheReadmeTablesNameExactlyTheCommandsAndOptions) {
  EXPECT_EQ(ReadmeTable("command", ""), CommandNames());
  std::set<std::string> options = ReadmeTable("option", "--");
  EXPECT_EQ(options, OptionNames());
}

TEST(EmHostDocs, CompletionOffersCommandsThenNothingAfterTheCommand) {
  EXPECT_EQ(Complete({"em-host", ""}), CommandNames());
  EXPECT_EQ(Complete({"em-host", "c"}), (std::set<std::string>{"cleanup", "collect", "create"}));
  // An option's value is not the command.
  EXPECT_EQ(Complete({"em-host", "--tool-root", "/opt/k", "q"}), (std::set<std::string>{"query"}));
  EXPECT_EQ(Complete({"em-host", "--cabinet", "=", "3", "q"}), (std::set<std::string>{"query"}));
  EXPECT_TRUE(Complete({"em-host", "query", ""}).empty());
  EXPECT_TRUE(Complete({"em-host", "transfer", "a.zip", "x"}).empty());
}

TEST(EmHostDocs, CompletionOffersEachOptionOnce) {
  EXPECT_EQ(Complete({"em-host", "-"}), OptionNames());
  EXPECT_EQ(Complete({"em-host", "--tool"}), (std::set<std::string>{"--tool-root", "--tool-log"}));
  EXPECT_EQ(Complete({"em-host", "--tool-root", "/r", "--tool"}),
            (std::set<std::string>{"--tool-log"}));
  EXPECT_EQ(Complete({"em-host", "--cabinet=3", "--ca"}), (std::set<std::string>{}));
  EXPECT_EQ(Complete({"em-host", "collect", "a.zip", "--time"}),
            (std::set<std::string>{"--timeout"}));
}

TEST(EmHostDocs, CompletionOffersWhatAnOptionsValueCanBe) {
  EXPECT_EQ(Complete({"em-host", "--hti", "s"}), (std::set<std::string>{"silent", "status:"}));
  EXPECT_EQ(Complete({"em-host", "--hti", "=", ""}),
            (std::set<std::string>{"absent", "copy", "silent", "status:"}));
  // A number: nothing to offer, neither options nor commands.
  EXPECT_TRUE(Complete({"em-host", "--timeout", ""}).empty());
  EXPECT_TRUE(Complete({"em-host", "--cabinet", "-"}).empty());
  CTempDir dir("emhost-completion");
  dir.Sub("bmc dir");
  dir.Sub("bin");
  WriteFile(dir.Path() + "/b.reg", "");
  EXPECT_EQ(Complete({"em-host", "--bmc-dir", "b"}, dir.Path()),
            (std::set<std::string>{"bmc dir", "bin"}));
  EXPECT_EQ(Complete({"em-host", "--registry", "b"}, dir.Path()),
            (std::set<std::string>{"bmc dir", "bin", "b.reg"}));
}
