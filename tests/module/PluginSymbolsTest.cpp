// The plug-in's dynamic symbol table, read with nm and objdump: it defines
// exactly the four EM_* entry points and leaves the host services undefined,
// so that the host process resolves them when it loads the library; it
// references the host's CRegistry in the std::string ABI it was built for;
// and no symbol it needs from the system carries a newer version than the
// build's baseline, so it loads on every system of that baseline.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#ifndef KORVEX_PLUGIN_PATH
#error "KORVEX_PLUGIN_PATH must name libEM_KORVEX.so"
#endif
#if !defined(KORVEX_BASELINE_GLIBC) || !defined(KORVEX_BASELINE_GLIBCXX) || \
    !defined(KORVEX_BASELINE_CXXABI) || !defined(KORVEX_BASELINE_GCC)
#error "KORVEX_BASELINE_GLIBC, _GLIBCXX, _CXXABI and _GCC must give the build's symbol baseline"
#endif

namespace {

// Everything a command writes to its standard output and error; ok tells
// whether it ran and exited with 0.
std::string CommandOutput(const std::string& command, bool* ok) {
  std::string text;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  *ok = pipe != nullptr;
  if (pipe == nullptr) return text;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, n);
  *ok = pclose(pipe) == 0;
  return text;
}

// Demangled names of the dynamic symbols nm lists with the given option,
// without their version suffix ("@GLIBC_2.2.5").
std::set<std::string> DynamicSymbols(const char* option, bool* ok) {
  std::set<std::string> names;
  const std::string text =
      CommandOutput(std::string("nm -D -C ") + option + " '" KORVEX_PLUGIN_PATH "'", ok);
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    // "<address> T name" or "                 U name"
    if (line.size() < 19) continue;
    std::string name = line.substr(19);
    const std::size_t version = name.find('@');
    if (version != std::string::npos) name.erase(version);
    names.insert(name);
  }
  return names;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

TEST(PluginSymbolsTest, DefinesOnlyTheFourEntryPoints) {
  bool ok = false;
  const std::set<std::string> defined = DynamicSymbols("--defined-only", &ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ((std::set<std::string>{"EM_Create", "EM_Delete", "EM_GetModuleName", "EM_SetupAction"}),
            defined);
}

TEST(PluginSymbolsTest, LeavesTheHostServicesToTheHost) {
  bool ok = false;
  const std::set<std::string> undefined = DynamicSymbols("--undefined-only", &ok);
  ASSERT_TRUE(ok);
  for (const char* name :
       {"Debug", "CDebug::Print(unsigned int, char const*, ...)",
        "CProcess::ExecuteCmd(char const*, unsigned int&, unsigned int&, char const*, bool)",
        "CProcess::FindProcess(unsigned int&, char const*)",
        "CProcess::TerminateProcess(unsigned int, unsigned int)",
        "CProcess::WaitForExit(unsigned int, unsigned int&, unsigned int)",
        "CRegistry::Open(char const*, CRegistryNode*, int)", "CRegistry::Close()",
        "CRegistry::MLocalMachine", "CEvent::Set()", "CEvent::Wait(unsigned int, int)",
        "CThread::Start(void* (*)(void*), void*, unsigned long, int, unsigned int, unsigned long, "
        "int)",
        "CThread::Kill(unsigned int)", "CThread::WaitForTermination(unsigned int)",
        "pThreadMonitor", "ThreadCounter"}) {
    EXPECT_EQ(1u, undefined.count(name)) << name;
  }
}

TEST(PluginSymbolsTest, DefinesNoHostServiceNorAnyModuleInternal) {
  bool ok = false;
  const std::set<std::string> defined = DynamicSymbols("--defined-only", &ok);
  ASSERT_TRUE(ok);
  for (const std::string& name : defined) {
    for (const char* prefix : {"CDebug", "Debug", "CEvent", "CThread", "CProcess", "CRegistry",
                               "pThreadMonitor", "ThreadCounter", "EM_KORVEX", "CExtensionModule",
                               "SipJson", "CDataStruct", "CTaskSerializer", "pModuleInstance"}) {
      EXPECT_FALSE(StartsWith(name, prefix)) << name;
    }
  }
}

// ----- symbol versions --------------------------------------------------------

namespace {

// One versioned symbol of objdump -T: "(GLIBC_2.33) stat".
struct CVersionedSymbol {
  std::string m_Name;
  std::string m_Version;  // "GLIBC_2.33"
};

// The versioned symbols of objdump -T output; lines without a version in
// parentheses (unversioned or the library's own) are not listed.
std::vector<CVersionedSymbol> VersionedSymbols(const std::string& objdumpText) {
  std::vector<CVersionedSymbol> symbols;
  std::istringstream lines(objdumpText);
  std::string line;
  while (std::getline(lines, line)) {
    const std::size_t open = line.find('(');
    const std::size_t close = line.find(')', open);
    if (open == std::string::npos || close == std::string::npos) continue;
    std::istringstream rest(line.substr(close + 1));
    CVersionedSymbol symbol;
    rest >> symbol.m_Name;
    symbol.m_Version = line.substr(open + 1, close - open - 1);
    if (!symbol.m_Name.empty()) symbols.push_back(symbol);
  }
  return symbols;
}

// "2.2.5" -> {2, 2, 5}; empty when it is not a dotted number.
std::vector<unsigned long> VersionNumbers(const std::string& text) {
  std::vector<unsigned long> numbers;
  std::istringstream parts(text);
  std::string part;
  while (std::getline(parts, part, '.')) {
    if (part.empty() || part.find_first_not_of("0123456789") != std::string::npos) return {};
    numbers.push_back(std::stoul(part));
  }
  return numbers;
}

// What is wrong with one symbol version against the baseline, or "" when it
// is allowed. Only the four families of the baseline are allowed; any other
// (GLIBC_PRIVATE, a library outside the baseline) is reported.
std::string BaselineViolation(const CVersionedSymbol& symbol) {
  const struct {
    const char* m_Family;
    const char* m_Newest;
  } baseline[] = {{"GLIBC_", KORVEX_BASELINE_GLIBC},
                  {"GLIBCXX_", KORVEX_BASELINE_GLIBCXX},
                  {"CXXABI_", KORVEX_BASELINE_CXXABI},
                  {"GCC_", KORVEX_BASELINE_GCC}};
  for (const auto& family : baseline) {
    const std::string prefix = family.m_Family;
    if (symbol.m_Version.compare(0, prefix.size(), prefix) != 0) continue;
    const std::vector<unsigned long> version =
        VersionNumbers(symbol.m_Version.substr(prefix.size()));
    if (version.empty()) break;  // e.g. GLIBC_PRIVATE
    if (version <= VersionNumbers(family.m_Newest)) return "";
    return symbol.m_Name + " needs " + symbol.m_Version + ", newer than the baseline " + prefix +
           family.m_Newest;
  }
  return symbol.m_Name + " needs " + symbol.m_Version + ", a version outside the baseline";
}

std::vector<std::string> BaselineViolations(const std::string& objdumpText) {
  std::vector<std::string> violations;
  for (const CVersionedSymbol& symbol : VersionedSymbols(objdumpText)) {
    const std::string violation = BaselineViolation(symbol);
    if (!violation.empty()) violations.push_back(violation);
  }
  return violations;
}

}  // namespace

TEST(PluginSymbolsTest, NoSymbolIsNewerThanTheBaseline) {
  bool ok = false;
  const std::string text = CommandOutput("objdump -T '" KORVEX_PLUGIN_PATH "'", &ok);
  ASSERT_TRUE(ok) << text;
  // The plug-in does use the C library and the C++ runtime; an empty list
  // would mean the output was not understood, not that all is well.
  ASSERT_GT(VersionedSymbols(text).size(), 10u) << text;
  for (const std::string& violation : BaselineViolations(text)) ADD_FAILURE() << violation;
}

TEST(PluginSymbolsTest, BaselineCheckNamesEveryNewerSymbol) {
  // objdump -T lines as the checker meets them: the one glibc 2.33 stat and a
  // C++ runtime symbol newer than any baseline are reported by name and
  // version; old versions, the library's own and unversioned symbols pass.
  const std::string text =
      "0000000000000000      DF *UND*\t0000000000000000 (GLIBC_2.33) stat\n"
      "0000000000000000      DF *UND*\t0000000000000000 (GLIBC_2.2.5) unlink\n"
      "0000000000000000      DF *UND*\t0000000000000000 (GLIBC_2.17) clock_gettime\n"
      "0000000000000000      DF *UND*\t0000000000000000 (GLIBCXX_3.4.29) "
      "_ZSt28__throw_bad_array_new_lengthv\n"
      "0000000000000000      DF *UND*\t0000000000000000 (CXXABI_1.3.13) "
      "__cxa_init_primary_exception\n"
      "0000000000000000      DF *UND*\t0000000000000000 (GLIBC_PRIVATE) _dl_find_object\n"
      "0000000000000000      DF *UND*\t0000000000000000 (CXXABI_1.3) __cxa_throw\n"
      "0000000000000000      DF *UND*\t0000000000000000 (GCC_3.0) _Unwind_Resume\n"
      "0000000000000000  w   D  *UND*\t0000000000000000              __gmon_start__\n"
      "0000000000005d80 g    DF .text\t0000000000000062  Base        EM_Create\n";
  const std::vector<std::string> violations = BaselineViolations(text);
  ASSERT_EQ(4u, violations.size()) << ::testing::PrintToString(violations);
  EXPECT_EQ("stat needs GLIBC_2.33, newer than the baseline GLIBC_" KORVEX_BASELINE_GLIBC,
            violations[0]);
  EXPECT_EQ(
      "_ZSt28__throw_bad_array_new_lengthv needs GLIBCXX_3.4.29, newer than the baseline "
      "GLIBCXX_" KORVEX_BASELINE_GLIBCXX,
      violations[1]);
  EXPECT_EQ(
      "__cxa_init_primary_exception needs CXXABI_1.3.13, newer than the baseline "
      "CXXABI_" KORVEX_BASELINE_CXXABI,
      violations[2]);
  EXPECT_EQ("_dl_find_object needs GLIBC_PRIVATE, a version outside the baseline", violations[3]);
  // Numbers compare as numbers, not as text: 2.9 is older than 2.17.
  EXPECT_TRUE(BaselineViolation({"x", "GLIBC_2.9"}).empty());
  EXPECT_FALSE(BaselineViolation({"x", "GLIBC_2.100"}).empty());
}

TEST(PluginSymbolsTest, ReferencesTheHostRegistryInTheBuildsStringAbi) {
  // The host exports CRegistry's std::string& members in the string ABI it
  // was compiled with: "RSs" for the old copy-on-write string, the __cxx11
  // name for the C++11 one. The plug-in must ask for the same names.
#if _GLIBCXX_USE_CXX11_ABI
  const std::string stringArgument = "RNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
#else
  const std::string stringArgument = "RSs";
#endif
  bool ok = false;
  const std::string text = CommandOutput("nm -D --undefined-only '" KORVEX_PLUGIN_PATH "'", &ok);
  ASSERT_TRUE(ok) << text;
  for (const std::string& name :
       {"_ZN9CRegistry10QueryValueE" + stringArgument + "PKcP13CRegistryNode",
        "_ZN9CRegistry22GetProductRegistryRootE" + stringArgument + "PKc"}) {
    EXPECT_NE(std::string::npos, text.find(" U " + name + "\n")) << name << " in\n" << text;
  }
}
