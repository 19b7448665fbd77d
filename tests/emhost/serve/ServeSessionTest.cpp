// The serve session's reading of its input and its events, with an
// in-process module: lines split across reads, blank lines, a last line
// without its break, lines refused (too long, not UTF-8, not an object),
// requests acknowledged with the id as given, controls, and the end at
// "quit" or at the end of input. The module answers in place and queues
// nothing, so no tool is started.
#include "frame/ExtensionModule.h"
#include "host/HostControl.h"
#include "host/emhost/loader/ModuleHost.h"
#include "host/emhost/serve/ServeSession.h"
#include "host/emhost/serve/Signals.h"
#include "tests/support/BaseModule.h"
#include "util/Fd.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <iterator>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// Runs a session over input; returns its output, and its exit status in status.
std::string RunSession(const std::string& input, int& status) {
  const int kSignals[] = {SIGUSR2};
  CSignalWatch signals(std::begin(kSignals), std::end(kSignals));
  korvex::CFd in(::memfd_create("serve-input", MFD_CLOEXEC));
  EXPECT_EQ(::write(in.Get(), input.data(), input.size()), static_cast<ssize_t>(input.size()));
  ::lseek(in.Get(), 0, SEEK_SET);
  std::FILE* out = std::tmpfile();
  CModuleLibrary& library = korvex_test::BaseModuleLibrary();
  CModuleInstance instance(library);
  std::string error;
  EXPECT_TRUE(instance.Create(&error)) << error;
  CHostSwitch hostSwitch(5);  // no file transfer: these sessions never need one
  {
    CServeSession session(library, instance, hostSwitch, signals, in.Get(), out);
    status = session.Run();
  }
  std::string text(static_cast<std::size_t>(std::ftell(out)), '\0');
  std::rewind(out);
  EXPECT_EQ(std::fread(&text[0], 1, text.size(), out), text.size());
  std::fclose(out);
  return text;
}

const char* const kRequest = "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":4660}]}}";

}  // namespace

TEST(EmHostServeSession, LinesRequestsAndControlsGiveTheirEventsInOrder) {
  const std::string input = std::string("\n   \t\r\n") +  // 1, 2: blank
                            "{\"id\":{\"k\":[1,2]},\"request\":" + kRequest + "}\n" +  // 3
                            "{\"id\":\"c\",\"control\":\"setup\",\"action\":4}\n" +    // 4
                            "[1]\n" +                                                  // 5
                            "{\"id\":1}\n" +                                           // 6
                            "\xC3\x28\n" +                                             // 7
                            "{\"control\":\"cabinet\"}\n" +                            // 8
                            "{\"control\":\"wait\",\"timeout_ms\":10}";  // 9, no break
  int status = -1;
  const std::string output = RunSession(input, status);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(output,
            "{\"id\":{\"k\":[1,2]},\"event\":\"ack\",\"result\":0,\"message\":"
            "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":4660,\"ST\":1}]}}}\n"
            "{\"id\":\"c\",\"event\":\"control\",\"control\":\"setup\",\"result\":104}\n"
            "{\"event\":\"error\",\"line\":5,\"error\":\"a line must be a JSON object\"}\n"
            "{\"event\":\"error\",\"line\":6,\"error\":\"a line needs \\\"request\\\" or "
            "\\\"control\\\"\"}\n"
            "{\"event\":\"error\",\"line\":7,\"error\":\"the line is not valid UTF-8\"}\n"
            "{\"event\":\"error\",\"line\":8,\"error\":\"control cabinet needs \\\"nr\\\" (an "
            "unsigned 32-bit number)\"}\n"
            "{\"id\":null,\"event\":\"control\",\"control\":\"wait\",\"result\":1}\n");
}

TEST(EmHostServeSession, ATooLongLineIsRefusedWholeAndTheNextIsRead) {
  // Twice the limit: the limit is passed in the middle of a read, not at its line break.
  const std::string longLine(2 * CServeSession::kMaxLineBytes, ' ');
  const std::string input = "{\"id\":1,\"control\":\"quit\"" + longLine + "}\n" +
                            "{\"id\":2,\"control\":\"quit\"}\n" +
                            "{\"id\":3,\"control\":\"quit\"}\n";
  int status = -1;
  const std::string output = RunSession(input, status);
  EXPECT_EQ(status, 0);
  // The session ends at the first quit it reads: the third line is never read.
  EXPECT_EQ(output, "{\"event\":\"error\",\"line\":1,\"error\":\"line longer than " +
                        std::to_string(CServeSession::kMaxLineBytes) +
                        " bytes\"}\n"
                        "{\"id\":2,\"event\":\"control\",\"control\":\"quit\",\"result\":1}\n");
}

TEST(EmHostServeSession, ALineAsLongAsAllowedIsRead) {
  std::string line = "{\"id\":5,\"control\":\"quit\"}";
  line.insert(line.size() - 1, CServeSession::kMaxLineBytes - line.size(), ' ');
  ASSERT_EQ(line.size(), CServeSession::kMaxLineBytes);
  int status = -1;
  EXPECT_EQ(RunSession(line + "\n", status),
            "{\"id\":5,\"event\":\"control\",\"control\":\"quit\",\"result\":1}\n");
}

TEST(EmHostServeSession, EmptyInputEndsTheSessionWithoutAnEvent) {
  int status = -1;
  EXPECT_EQ(RunSession("", status), "");
  EXPECT_EQ(status, 0);
}
