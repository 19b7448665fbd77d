// The plug-in's dynamic symbol table, read with nm: it defines exactly the
// four EM_* entry points and leaves the host services undefined, so that the
// host process resolves them when it loads the library.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>

#ifndef KORVEX_PLUGIN_PATH
#error "KORVEX_PLUGIN_PATH must name libEM_KORVEX.so"
#endif

namespace {

// Demangled names of the dynamic symbols nm lists with the given option,
// without their version suffix ("@GLIBC_2.2.5").
std::set<std::string> DynamicSymbols(const char* option, bool* ok) {
  std::set<std::string> names;
  const std::string command = std::string("nm -D -C ") + option + " '" KORVEX_PLUGIN_PATH "' 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  *ok = pipe != nullptr;
  if (pipe == nullptr) return names;
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, n);
  *ok = pclose(pipe) == 0;
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
