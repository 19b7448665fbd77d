// The stand-in BMC file transfer never writes outside its BMC directory,
// whatever "BmcFilePath" holds: absolute paths, "..", names cut by a NUL
// byte in a "RAW" block, names of 10,000 characters, and names that meet a
// symbolic link planted in the BMC directory. Checked on the file-transfer
// module alone and end to end through em-host and the module, against a
// snapshot of the whole area around the BMC directory.
#include "host/emhost/bmc/BmcFileTransfer.h"
#include "host/emhost/bmc/HtiStandIn.h"
#include "host/emhost/switch/HostSwitch.h"
#include "message/SipJson.h"
#include "tests/hardening/HardeningSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace hardening {
namespace {

using namespace std::chrono_literals;

const std::string kArchive = "archive bytes\n";

// The area: bmc/ (the BMC directory, with a link to a file outside and one
// to a directory outside), outside/ (a file that must never change), src/
// (the archive), cwd/ (em-host's working directory).
class BmcPath : public ::testing::Test {
 protected:
  void SetUp() override {
    m_Bmc = m_Area.Sub("bmc");
    m_Outside = m_Area.Sub("outside");
    m_Cwd = m_Area.Sub("cwd");
    m_Source = m_Area.Sub("src") + "/Korvex_Data.zip";
    WriteFile(m_Source, kArchive);
    WriteFile(m_Outside + "/target", "outside, never to be written\n");
    ASSERT_EQ(0, ::symlink("../outside/target", (m_Bmc + "/link").c_str()));
    ASSERT_EQ(0, ::symlink("../outside", (m_Bmc + "/dirlink").c_str()));
    m_Marker = "kvx-evil-" + std::to_string(::getpid());
  }

  // Names that must be refused with 8, as the module hands them over.
  std::vector<std::string> RefusedNames() const {
    const std::string evil = m_Marker;
    return {
        m_Outside + "/" + evil,                 // absolute, into the area
        "/" + evil,                             // absolute, into /
        "/tmp/" + evil,                         //
        "../outside/" + evil,                   // up and over
        "../" + evil,                           //
        "..",                                   //
        ".",                                    //
        "",                                     //
        "a/../../" + evil,                      //
        "....//" + evil,                        //
        "...",                                  // holds ".."
        evil + "/",                             //
        "dirlink/" + evil,                      // through the planted link
        "link/" + evil,                         //
        "sub\\..\\..\\" + evil,                 //
        std::string("ok\0/../../", 10) + evil,  // a NUL inside
        std::string("\0", 1),                   //
        "new\nline",                            //
        std::string(201, 'n'),                  // one over the limit
        std::string(10000, 'a'),                // 10,000 characters
        [] {                                    // 10,000 characters of "../"
          std::string s;
          while (s.size() < 10000) s += "../";
          return s;
        }(),
    };
  }

  // Names that stay inside the BMC directory and are stored there.
  std::vector<std::string> AcceptedNames() const {
    return {"plain.zip",     "link",
            "dirlink",       "~",
            "-rf",           " ",
            ".hidden",       "%2e%2e%2f" + m_Marker,
            "u\xc3\xbc.zip", std::string(200, 'm')};
  }

  // Every difference in the area must be inside bmc/: a stored file and its
  // checksum under an accepted name, or the directory's own times.
  void ExpectOnlyBmcChanged(const std::map<std::string, CNode>& before,
                            const std::set<std::string>& stored) {
    const auto after = Snapshot(m_Area.Path());
    for (const std::string& line : Differences(before, after)) {
      const std::string path = line.substr(2);
      if (path == "." || path == "bmc") {
        EXPECT_EQ('~', line[0]) << line;
        continue;
      }
      ASSERT_EQ(0u, path.rfind("bmc/", 0)) << "written outside the BMC directory: " << line;
      const std::string name = path.substr(4);
      const bool isSum = name.size() > 7 && name.compare(name.size() - 7, 7, ".sha256") == 0;
      const std::string base = isSum ? name.substr(0, name.size() - 7) : name;
      EXPECT_EQ(1u, stored.count(base)) << "unexpected entry in the BMC directory: " << line;
    }
    // Nothing escaped into the places an absolute name could reach.
    EXPECT_FALSE(Exists("/" + m_Marker));
    EXPECT_FALSE(Exists("/tmp/" + m_Marker));
    EXPECT_FALSE(Exists(m_Marker));
    EXPECT_EQ("outside, never to be written\n", ReadFile(m_Outside + "/target"));
  }

  CTempDir m_Area;
  std::string m_Bmc;
  std::string m_Outside;
  std::string m_Cwd;
  std::string m_Source;
  std::string m_Marker;
};

unsigned int RunTransfer(CBmcFileTransfer& transfer, const std::string& source,
                         const std::string& name) {
  CBmcTransferRequest request;
  request.m_FileType = korvex::kKorvexFileType;
  request.m_LocalPath = source;
  request.m_BmcName = name;
  request.m_TimeoutSec = 30;
  CBmcTransferJob job;
  transfer.Run(request, job);
  return job.m_Status;
}

TEST_F(BmcPath, FileTransferAloneRefusesEveryNameThatLeavesTheDirectory) {
  const auto before = Snapshot(m_Area.Path());
  CBmcFileTransfer transfer(m_Bmc);
  for (const std::string& name : RefusedNames()) {
    EXPECT_FALSE(CBmcFileTransfer::NameAcceptable(name)) << name.substr(0, 60);
    EXPECT_EQ(static_cast<unsigned int>(korvex::kStatusBmcNameRefused),
              RunTransfer(transfer, m_Source, name))
        << name.substr(0, 60);
  }
  ExpectOnlyBmcChanged(before, {});
  EXPECT_TRUE(Differences(before, Snapshot(m_Area.Path())).empty());
}

TEST_F(BmcPath, FileTransferAloneStoresAcceptedNamesInsideTheDirectoryOnly) {
  const auto before = Snapshot(m_Area.Path());
  CBmcFileTransfer transfer(m_Bmc);
  std::set<std::string> stored;
  for (const std::string& name : AcceptedNames()) {
    ASSERT_EQ(static_cast<unsigned int>(korvex::kStatusDone), RunTransfer(transfer, m_Source, name))
        << name;
    stored.insert(name);
    EXPECT_EQ(kArchive, ReadFile(m_Bmc + "/" + name)) << name;
  }
  // The planted links were replaced, not followed.
  struct stat info {};
  ASSERT_EQ(0, ::lstat((m_Bmc + "/link").c_str(), &info));
  EXPECT_TRUE(S_ISREG(info.st_mode));
  ASSERT_EQ(0, ::lstat((m_Bmc + "/dirlink").c_str(), &info));
  EXPECT_TRUE(S_ISREG(info.st_mode));
  ExpectOnlyBmcChanged(before, stored);
}

// JSON text of a string, every byte below 0x20 escaped.
std::string JsonText(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// A "RAW" block: one number per byte.
std::string RawBlock(const std::string& bytes) {
  std::string out = "{\"RAW\":[";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0) out += ",";
    out += std::to_string(static_cast<unsigned char>(bytes[i]));
  }
  return out + "]}";
}

std::string TransferLine(int id, const std::string& data) {
  return "{\"id\":" + std::to_string(id) +
         R"(,"request":{"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"DA":)" + data + "}]}}}";
}

std::string TransferReply(int id, unsigned int status) {
  return "{\"id\":" + std::to_string(id) +
         R"(,"event":"reply","message":{"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"ST":)" +
         std::to_string(status) + "}]}}}";
}

TEST_F(BmcPath, ThroughTheModuleNoNameLeavesTheDirectory) {
  // The tool's root holds the archive; "Korvex" is a directory, which the
  // module counts as installed, so no tool process is involved at all.
  const std::string root = m_Area.Sub("root");
  ASSERT_EQ(0, ::mkdir((root + "/Korvex").c_str(), 0755));
  WriteFile(root + "/Korvex_Data.zip", kArchive);
  const auto before = Snapshot(m_Area.Path());

  struct CCase {
    std::string m_Data;  // "DA" as JSON
    unsigned int m_Status;
    std::string m_Stored;  // the name it is stored under, when accepted
  };
  std::vector<CCase> cases;
  for (const std::string& name : RefusedNames()) {
    // What the module hands over is the text up to the first NUL byte; an
    // empty name is not refused by the module but by the file transfer.
    const std::string handed = name.substr(0, name.find('\0'));
    if (CBmcFileTransfer::NameAcceptable(handed)) continue;  // "ok" of "ok\0/../.."
    cases.push_back({JsonText(name), korvex::kStatusBmcNameRefused, ""});
    cases.push_back({RawBlock(name + std::string(1, '\0')), korvex::kStatusBmcNameRefused, ""});
  }
  // A NUL inside the block ends the name: what follows it is never used.
  cases.push_back({RawBlock(std::string("raw-ok.zip\0../outside/", 22) + m_Marker),
                   korvex::kStatusDone, "raw-ok.zip"});
  cases.push_back({RawBlock("../outside/" + m_Marker + std::string("\0ok", 3)),
                   korvex::kStatusBmcNameRefused, ""});
  cases.push_back({JsonText(std::string("str-ok.zip\0/../../", 18) + m_Marker), korvex::kStatusDone,
                   "str-ok.zip"});
  cases.push_back({RawBlock(std::string(10000, 'r')), korvex::kStatusBmcNameRefused, ""});
  for (const std::string& name : AcceptedNames()) {
    cases.push_back({JsonText(name), korvex::kStatusDone, name});
  }

  // One request at a time: the module's queue takes 19 tasks, and one it
  // refuses is acknowledged all the same but never answered.
  CEmHost host({"--tool-root", root, "--bmc-dir", m_Bmc, "serve"}, m_Cwd);
  std::set<std::string> stored;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const int id = static_cast<int>(i + 1);
    host.WriteLine(TransferLine(id, cases[i].m_Data));
    const std::string prefix = "{\"id\":" + std::to_string(id) + ",\"event\":\"reply\"";
    ASSERT_TRUE(
        host.WaitForLine([&](const std::string& l) { return l.rfind(prefix, 0) == 0; }, 60s))
        << "case " << id << ": no reply\n"
        << host.Out() << host.Err();
    const std::vector<std::string> lines = host.OutputLines();
    EXPECT_NE(lines.end(),
              std::find(lines.begin(), lines.end(), TransferReply(id, cases[i].m_Status)))
        << "case " << id << ": " << cases[i].m_Data.substr(0, 80);
    if (!cases[i].m_Stored.empty()) {
      stored.insert(cases[i].m_Stored);
      EXPECT_EQ(kArchive, ReadFile(m_Bmc + "/" + cases[i].m_Stored)) << cases[i].m_Stored;
    }
  }
  host.CloseInput();
  EXPECT_EQ(0, host.WaitForExit(60s)) << host.Err();
  ExpectOnlyBmcChanged(before, stored);
}

// The BMC directory is opened once: swapping its path for a link to another
// directory (and back) while transfers run sends nothing there, and leaves
// no temporary file on either side.
TEST_F(BmcPath, DirectorySwappedForALinkDuringTransfersWritesNothingOutside) {
  const std::string parked = m_Area.Path() + "/bmc-parked";
  CHtiStandIn standIn(CHtiMode{}, m_Bmc);
  CHostSwitch hostSwitch(5);
  standIn.RegisterWith(hostSwitch);
  std::atomic<bool> done{false};
  std::atomic<unsigned long> swaps{0};
  std::thread swapper([&] {
    while (!done) {
      if (::rename(m_Bmc.c_str(), parked.c_str()) != 0) break;
      const bool linked = ::symlink("outside", m_Bmc.c_str()) == 0;
      std::this_thread::sleep_for(std::chrono::microseconds(300));
      if (linked) ::unlink(m_Bmc.c_str());
      if (::rename(parked.c_str(), m_Bmc.c_str()) != 0) break;
      ++swaps;
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  });
  std::set<std::string> expected = {"link", "dirlink"};
  for (int i = 0; i < 60; ++i) {
    const std::string name = "swap-" + std::to_string(i) + ".zip";
    const std::string text =
        R"({"SIP":{"V":1,"CMD":[{"OC":61522,"TO":30,"DA":{"FileType":2,"LocalFilePath":")" +
        m_Source + R"(","BmcFilePath":")" + name + R"("}}]}})";
    SipJson request;
    ASSERT_TRUE(request.FromJson(text.data(), text.size()));
    EXPECT_EQ(1, hostSwitch.AsyncRequest(nullptr, request, 5000));
    EXPECT_EQ(static_cast<unsigned int>(korvex::kStatusDone), request.Status()) << name;
    expected.insert(name);
    expected.insert(name + ".sha256");
  }
  done = true;
  swapper.join();
  EXPECT_GT(swaps.load(), 0u);
  // The directory is back under its path; everything went into it.
  struct stat info {};
  ASSERT_EQ(0, ::lstat(m_Bmc.c_str(), &info));
  ASSERT_TRUE(S_ISDIR(info.st_mode));
  std::set<std::string> entries;
  for (const auto& node : Snapshot(m_Bmc)) {
    if (node.first != "." && node.first.find('/') == std::string::npos) entries.insert(node.first);
  }
  EXPECT_EQ(expected, entries);
  for (const std::string& name : entries) EXPECT_NE('.', name[0]) << name;
  std::set<std::string> outside;
  for (const auto& node : Snapshot(m_Outside)) {
    if (node.first != ".") outside.insert(node.first);
  }
  EXPECT_EQ((std::set<std::string>{"target"}), outside);
  EXPECT_EQ("outside, never to be written\n", ReadFile(m_Outside + "/target"));
}

}  // namespace
}  // namespace hardening
