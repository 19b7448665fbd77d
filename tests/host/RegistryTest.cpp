// The stand-alone host's configuration store: the registry file format,
// its error texts, the product-root rule, and CRegistry's results and
// last-error codes.
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "tests/host/HostTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using hosttest::CTempDir;

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_Dir.Valid());
    halvane::ClearRegistry();
  }
  void TearDown() override { halvane::ClearRegistry(); }

  // Writes content to a registry file and loads it; the error text, or
  // "loaded".
  std::string Load(const std::string& content, const std::string& name = "registry.conf") {
    const std::string path = m_Dir / name;
    hosttest::WriteFile(path, content);
    std::string error;
    if (halvane::LoadRegistryFile(path.c_str(), &error)) return "loaded";
    return error;
  }

  // Opens key and reads value; "<open code>/<query code>/<value>".
  static std::string Read(const std::string& key, const std::string& name) {
    CRegistry registry;
    std::string value = "<none>";
    const long opened = registry.Open(key.c_str(), CRegistry::MLocalMachine, -1);
    if (opened != 0) {
      return std::to_string(opened) + "/-/" + value + "/" + std::to_string(registry.m_LastError);
    }
    const long queried = registry.QueryValue(value, name.c_str(), nullptr);
    registry.Close();
    return "0/" + std::to_string(queried) + "/" + value + "/" + std::to_string(registry.m_LastError);
  }

  CTempDir m_Dir;
};

TEST_F(RegistryTest, ExampleFileGivesTheToolRoot) {
  ASSERT_EQ("loaded", Load("# comment\n"
                           "[SOFTWARE\\Halvane\\Korvex\\Setup]\n"
                           "FileRoot = /opt/korvex\n"));
  EXPECT_EQ("0/0//opt/korvex/0", Read("SOFTWARE\\Halvane\\Korvex\\Setup", "FileRoot"));
  std::string root = "unchanged";
  EXPECT_NE(0, CRegistry::GetProductRegistryRoot(root, "Korvex"));
  EXPECT_EQ("SOFTWARE\\Halvane\\Korvex", root);
}

TEST_F(RegistryTest, ValuesKeepInnerBlanksEqualsSignsAndBackslashes) {
  ASSERT_EQ("loaded", Load("[SOFTWARE\\Halvane\\Example]\n"
                           "Command Line = /usr/bin/tool --mode=fast  now \n"
                           "\tWindowsPath\t=\tC:\\Program Files\\Tool\n"
                           "Hash = a # not a comment ; either\n"
                           "Empty =\n"
                           "Eq==x=\n"));
  const std::string key = "SOFTWARE\\Halvane\\Example";
  EXPECT_EQ("0/0//usr/bin/tool --mode=fast  now/0", Read(key, "Command Line"));
  EXPECT_EQ("0/0/C:\\Program Files\\Tool/0", Read(key, "WindowsPath"));
  EXPECT_EQ("0/0/a # not a comment ; either/0", Read(key, "Hash"));
  EXPECT_EQ("0/0//0", Read(key, "Empty"));
  EXPECT_EQ("0/0/=x=/0", Read(key, "Eq"));
}

TEST_F(RegistryTest, QuotedValuesKeepBlanksAndUnderstandEscapes) {
  ASSERT_EQ("loaded", Load("[K]\n"
                           "Greeting = \"  two blanks, a \\\"quote\\\", a \\\\ and = sign  \"  \n"
                           "Lines = \"a\\nb\\tc\\rd\"\n"
                           "Empty = \"\"\n"));
  EXPECT_EQ("0/0/  two blanks, a \"quote\", a \\ and = sign  /0", Read("K", "Greeting"));
  EXPECT_EQ("0/0/a\nb\tc\rd/0", Read("K", "Lines"));
  EXPECT_EQ("0/0//0", Read("K", "Empty"));
}

TEST_F(RegistryTest, CrLfLinesCommentsAndRepeatedKeysAreHandled) {
  ASSERT_EQ("loaded", Load("; semicolon comment\r\n"
                           "   # indented comment\r\n"
                           "\r\n"
                           "[ A\\B ]\r\n"
                           "One = 1\r\n"
                           "[C]\r\n"
                           "[A\\B]\r\n"
                           "Two = 2\r\n"));
  EXPECT_EQ("0/0/1/0", Read("A\\B", "One"));
  EXPECT_EQ("0/0/2/0", Read("A\\B", "Two"));
  EXPECT_EQ("0/3/<none>/3", Read("C", "One"));  // a key without values exists
}

TEST_F(RegistryTest, ParentsOfAGivenKeyExist) {
  ASSERT_EQ("loaded", Load("[A\\B\\C]\nV = x\n"));
  EXPECT_EQ("0/3/<none>/3", Read("A", "V"));
  EXPECT_EQ("0/3/<none>/3", Read("A\\B", "V"));
  EXPECT_EQ("0/0/x/0", Read("A\\B\\C", "V"));
  EXPECT_EQ("2/-/<none>/2", Read("A\\B\\C\\D", "V"));
  EXPECT_EQ("87/-/<none>/87", Read("A\\B\\", "V"));
}

TEST_F(RegistryTest, KeysAndNamesAreCaseSensitive) {
  ASSERT_EQ("loaded", Load("[Key]\nName = v\n"));
  EXPECT_EQ("2/-/<none>/2", Read("key", "Name"));
  EXPECT_EQ("0/3/<none>/3", Read("Key", "name"));
}

// Malformed files: the error names the file and the line, the store keeps
// what it had.
struct CBadFile {
  const char* m_Content;
  const char* m_Error;  // after "<path>:"
};

TEST_F(RegistryTest, MalformedFilesNameFileAndLine) {
  const CBadFile cases[] = {
      {"[A]\nx = 1\n[B\n", "3: missing \"]\" after key path"},
      {"[A] trailing\n", "1: text after \"]\""},
      {"# c\n[  ]\n", "2: empty key path"},
      {"[A\\\\B]\n", "1: malformed key path \"A\\\\B\" (empty component)"},
      {"[\\A]\n", "1: malformed key path \"\\A\" (empty component)"},
      {"[A\\]\n", "1: malformed key path \"A\\\" (empty component)"},
      {"[A]\njust words\n", "2: expected \"[key path]\" or \"name = value\""},
      {"[A]\n = 1\n", "2: value without a name"},
      {"\n\nName = 1\n", "3: value \"Name\" before the first [key path]"},
      {"[A]\nN = 1\n[B]\nN = 2\n[A]\nN = 3\n", "6: duplicate value \"N\" in key \"A\""},
      {"[A]\nN = \"open\n", "2: unterminated quoted value"},
      {"[A]\nN = \"end\\\n", "2: unterminated quoted value"},
      {"[A]\nN = \"a\\qb\"\n", "2: unknown escape \"\\q\" in quoted value"},
      {"[A]\nN = \"a\" b\n", "2: text after the closing quote"},
      {"[A]\r\nN = 1\r\nbroken\r\n", "3: expected \"[key path]\" or \"name = value\""},
  };
  halvane::SetRegistryValue("Kept", "Value", "still here");
  int index = 0;
  for (const CBadFile& bad : cases) {
    const std::string name = "bad" + std::to_string(index++) + ".conf";
    EXPECT_EQ((m_Dir / name) + ":" + bad.m_Error, Load(bad.m_Content, name)) << bad.m_Content;
  }
  EXPECT_EQ("0/0/still here/0", Read("Kept", "Value"));
}

TEST_F(RegistryTest, NulByteIsAnError) {
  static const char raw[] = "[A]\nN = 1\nM = a\0b\n";
  const std::string content(raw, sizeof(raw) - 1);
  ASSERT_EQ(18u, content.size());
  EXPECT_EQ((m_Dir / "nul.conf") + ":3: NUL byte in line", Load(content, "nul.conf"));
}

TEST_F(RegistryTest, UnreadableFileIsAnErrorNamingIt) {
  const std::string missing = m_Dir / "missing.conf";
  std::string error;
  EXPECT_FALSE(halvane::LoadRegistryFile(missing.c_str(), &error));
  EXPECT_EQ(missing + ": cannot read registry file: No such file or directory", error);
  EXPECT_FALSE(halvane::LoadRegistryFile(m_Dir.Path().c_str(), &error));
  EXPECT_EQ(m_Dir.Path() + ": cannot read registry file: Is a directory", error);
  EXPECT_FALSE(halvane::LoadRegistryFile(nullptr, &error));
  EXPECT_EQ("registry file: no path given", error);
  EXPECT_FALSE(halvane::LoadRegistryFile(missing.c_str(), nullptr));  // no error text wanted
}

TEST_F(RegistryTest, LoadingReplacesTheWholeStore) {
  halvane::SetRegistryValue("Old", "V", "1");
  ASSERT_EQ("loaded", Load("[New]\nV = 2\n"));
  EXPECT_EQ("2/-/<none>/2", Read("Old", "V"));
  EXPECT_EQ("0/0/2/0", Read("New", "V"));
  ASSERT_EQ("loaded", Load(""));
  EXPECT_EQ("2/-/<none>/2", Read("New", "V"));
}

TEST_F(RegistryTest, MissingKeyGivesCodeTwo) {
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Korvex", "Other", "x");
  CRegistry registry;
  EXPECT_EQ(2, registry.Open("SOFTWARE\\Halvane\\Korvex\\Setup", CRegistry::MLocalMachine, -1));
  EXPECT_EQ(2u, registry.m_LastError);
  EXPECT_EQ(nullptr, registry.m_pOpenKey);
}

TEST_F(RegistryTest, MissingValueGivesCodeThreeAndLeavesTheOutputAlone) {
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Korvex\\Setup", "Other", "x");
  CRegistry registry;
  ASSERT_EQ(0, registry.Open("SOFTWARE\\Halvane\\Korvex\\Setup", CRegistry::MLocalMachine, -1));
  EXPECT_EQ(0u, registry.m_LastError);
  std::string value = "before";
  EXPECT_EQ(3, registry.QueryValue(value, "FileRoot", nullptr));
  EXPECT_EQ(3u, registry.m_LastError);
  EXPECT_EQ("before", value);
  // A success afterwards clears the last error.
  EXPECT_EQ(0, registry.QueryValue(value, "Other", nullptr));
  EXPECT_EQ(0u, registry.m_LastError);
  EXPECT_EQ("x", value);
}

TEST_F(RegistryTest, LastErrorIsTheFirstMember) {
  CRegistry registry;
  registry.Open("Nowhere", CRegistry::MLocalMachine, -1);
  unsigned int first = 0;
  std::memcpy(&first, &registry, sizeof(first));
  EXPECT_EQ(2u, first);
}

TEST_F(RegistryTest, BadHandlesAndParametersGiveCodesSixAndEightySeven) {
  halvane::SetRegistryValue("K", "V", "x");
  CRegistry registry;
  std::string value = "before";
  EXPECT_EQ(6, registry.QueryValue(value, "V", nullptr));  // nothing opened
  EXPECT_EQ(6u, registry.m_LastError);
  EXPECT_EQ(6, registry.Open("K", nullptr, -1));
  EXPECT_EQ(6u, registry.m_LastError);
  EXPECT_EQ(87, registry.Open(nullptr, CRegistry::MLocalMachine, -1));
  EXPECT_EQ(87u, registry.m_LastError);
  EXPECT_EQ(87, registry.Open("K\\\\L", CRegistry::MLocalMachine, -1));
  EXPECT_EQ(87, registry.Open("\\K", CRegistry::MLocalMachine, -1));
  ASSERT_EQ(0, registry.Open("K", CRegistry::MLocalMachine, -1));
  EXPECT_EQ(87, registry.QueryValue(value, nullptr, nullptr));
  int foreign = 0;
  EXPECT_EQ(6, registry.QueryValue(value, "V", reinterpret_cast<CRegistryNode*>(&foreign)));
  EXPECT_EQ(3, registry.QueryValue(value, "V", CRegistry::MLocalMachine));  // the root has no values
  EXPECT_EQ("before", value);
  registry.Close();
  EXPECT_EQ(6, registry.QueryValue(value, "V", nullptr));
  registry.Close();  // twice is harmless
}

TEST_F(RegistryTest, MLocalMachineIsANonNullRoot) {
  ASSERT_NE(nullptr, CRegistry::MLocalMachine);
  halvane::SetRegistryValue("K", "V", "x");
  CRegistry registry;
  EXPECT_EQ(0, registry.Open("", CRegistry::MLocalMachine, -1));  // the root itself
}

TEST_F(RegistryTest, KeyThatVanishesAfterOpenGivesCodeTwo) {
  halvane::SetRegistryValue("K", "V", "x");
  CRegistry registry;
  ASSERT_EQ(0, registry.Open("K", CRegistry::MLocalMachine, -1));
  halvane::ClearRegistry();
  std::string value;
  EXPECT_EQ(2, registry.QueryValue(value, "V", nullptr));
  EXPECT_EQ(2u, registry.m_LastError);
}

TEST_F(RegistryTest, OpeningAgainReplacesTheOpenedKey) {
  halvane::SetRegistryValue("A", "V", "a");
  halvane::SetRegistryValue("B", "V", "b");
  CRegistry registry;
  ASSERT_EQ(0, registry.Open("A", CRegistry::MLocalMachine, -1));
  ASSERT_EQ(0, registry.Open("B", CRegistry::MLocalMachine, -1));
  std::string value;
  EXPECT_EQ(0, registry.QueryValue(value, "V", nullptr));
  EXPECT_EQ("b", value);
  EXPECT_EQ(2, registry.Open("C", CRegistry::MLocalMachine, -1));
  EXPECT_EQ(6, registry.QueryValue(value, "V", nullptr));  // the failed open closed B
}

TEST_F(RegistryTest, ProductRootIsFoundThroughAKeyBelowIt) {
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Korvex\\Setup", "FileRoot", "/opt/k");
  std::string key = "unchanged";
  EXPECT_EQ(1, CRegistry::GetProductRegistryRoot(key, "Korvex"));
  EXPECT_EQ("SOFTWARE\\Halvane\\Korvex", key);
  EXPECT_EQ("SOFTWARE\\Halvane\\Korvex", halvane::ProductRootKey("Korvex"));
}

TEST_F(RegistryTest, ProductRootIsFoundAsAKeyOfItsOwn) {
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Korvex", "Version", "1");
  std::string key;
  EXPECT_EQ(1, CRegistry::GetProductRegistryRoot(key, "Korvex"));
  EXPECT_EQ("SOFTWARE\\Halvane\\Korvex", key);
}

TEST_F(RegistryTest, ProductRootIsNotFoundOtherwise) {
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Korvex\\Setup", "FileRoot", "/opt/k");
  halvane::SetRegistryValue("SOFTWARE\\Halvane\\Korvex2", "X", "y");
  halvane::SetRegistryValue("SOFTWARE\\Other\\Tool", "X", "y");
  std::string key = "unchanged";
  EXPECT_EQ(0, CRegistry::GetProductRegistryRoot(key, "Korv"));     // a prefix is no key
  EXPECT_EQ(0, CRegistry::GetProductRegistryRoot(key, "korvex"));   // case matters
  EXPECT_EQ(0, CRegistry::GetProductRegistryRoot(key, "Tool"));     // other maker
  EXPECT_EQ(0, CRegistry::GetProductRegistryRoot(key, ""));
  EXPECT_EQ(0, CRegistry::GetProductRegistryRoot(key, nullptr));
  EXPECT_EQ(0, CRegistry::GetProductRegistryRoot(key, "Korvex\\Setup"));
  EXPECT_EQ("unchanged", key);
  halvane::ClearRegistry();
  EXPECT_EQ(0, CRegistry::GetProductRegistryRoot(key, "Korvex"));
  EXPECT_EQ("unchanged", key);
}

TEST_F(RegistryTest, InMemoryValuesCanBeSetAndOverwritten) {
  halvane::SetRegistryValue("K", "V", "1");
  halvane::SetRegistryValue("K", "V", "2");
  halvane::SetRegistryValue("K", "W", "with = and \"quotes\"");
  EXPECT_EQ("0/0/2/0", Read("K", "V"));
  EXPECT_EQ("0/0/with = and \"quotes\"/0", Read("K", "W"));
  halvane::SetRegistryValue("", "V", "ignored");      // no such key can exist
  halvane::SetRegistryValue("A\\\\B", "V", "ignored");
  EXPECT_EQ("87/-/<none>/87", Read("A\\\\B", "V"));
}

TEST_F(RegistryTest, ConcurrentReadersAndWritersAgree) {
  halvane::SetRegistryValue("K", "V", "0");
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        CRegistry registry;
        std::string value;
        if (registry.Open("K", CRegistry::MLocalMachine, -1) != 0 ||
            registry.QueryValue(value, "V", nullptr) != 0 || value.empty() ||
            value.find_first_not_of("0123456789") != std::string::npos) {
          ++bad;
        }
        registry.Close();
      }
    });
  }
  for (int i = 0; i < 3000; ++i) halvane::SetRegistryValue("K", "V", std::to_string(i));
  stop = true;
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(0, bad.load());
  EXPECT_EQ("0/0/2999/0", Read("K", "V"));
}

}  // namespace
