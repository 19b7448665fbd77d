// em-host serve: a JSON-lines session for scripts and test suites.
//
// Input, one JSON object per line:
//   {"id":ANY,"request":SIP-MESSAGE,"index":N}       a request to the module
//   {"id":ANY,"control":NAME,...}                     start, stop, notify ("code"),
//       cabinet ("nr"), setup ("action"), wait ("timeout_ms"), quit
// Output, one JSON object per line, written as it happens, in order, and
// flushed before the session waits for anything (see Emit):
//   {"id":...,"event":"ack","result":N,"message":...}   ModuleRequest returned
//   {"id":...,"event":"reply","message":...}            SendReply
//   {"event":"transfer","message":...}                  a 0xF052 request reached the BMC stand-in
//   {"id":...,"event":"control","control":NAME,"result":N}
//   {"event":"error","line":N,"error":TEXT}             a line refused; the session goes on
#pragma once

#include "host/emhost/serve/PendingRequests.h"
#include "host/emhost/switch/HostSwitch.h"
#include "message/JsonTypes.h"
#include "util/Waiter.h"

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

class CModuleInstance;
class CModuleLibrary;
class CSignalWatch;

// The module id em-host gives the module in Start (layer 1, index 1).
constexpr unsigned int kKorvexModuleId = 0x00010001u;

class CServeSession : public CISwitchListener {
 public:
  // The longest line accepted (without its line break) and the deepest
  // nesting: the module copies messages recursively.
  static constexpr std::size_t kMaxLineBytes = 1u << 20;
  static constexpr unsigned int kMaxDepth = 32;
  static constexpr unsigned int kMaxIndex = 1023;
  // The most JSON values (objects, arrays, strings, numbers, literals, the
  // line object itself included) one line may hold. The module copies a
  // queued message value by value, and a value costs far more in the copy
  // than its bytes on the line: this bounds what one line can cost. It
  // leaves room for a "RAW" name block of 10,000 bytes.
  static constexpr std::size_t kMaxValues = 16384;
  static constexpr unsigned int kDefaultWaitMs = 60000;

  CServeSession(CModuleLibrary& library, CModuleInstance& instance, CHostSwitch& hostSwitch,
                CSignalWatch& signals, int inputFd, std::FILE* output);
  ~CServeSession() override;
  CServeSession(const CServeSession&) = delete;
  CServeSession& operator=(const CServeSession&) = delete;

  // Reads lines until end of input, quit or a signal; then stops and
  // deletes the module. Returns the exit status (0, or 128 + signal).
  int Run();

  void OnReply(std::uint64_t tag, SipJson& message) override;
  void OnRouted(unsigned int opcode, SipJson& request) override;

  // Requests remembered because their reply may still come.
  std::size_t PendingRequests() { return m_Pending.Size(); }

 private:
  enum class LineResult { kGoOn, kQuit, kSignal };
  enum class Input { kReadable, kAgain, kSignal };

  // Waits for input or a signal (which it takes into m_Signal).
  Input WaitForInput();
  // Reads what is there and handles every complete line; false when the
  // session ends (end of input, quit, a signal).
  bool ReadInput();
  bool Consume(const char* data, std::size_t size);
  // One piece of a line up to a line break (complete) or the end of the
  // data read; handles the line once it is complete.
  LineResult TakePiece(const char* data, std::size_t size, bool complete);
  LineResult HandleLine(const char* text, std::size_t length);
  // Moves the line's "request" into the message it delivers.
  LineResult HandleRequest(JsonValue& line, const std::string& id);
  // The request's "index", 0 when absent; false (reported) when refused.
  bool RequestIndex(const JsonValue& line, unsigned int& index);
  LineResult HandleControl(const JsonValue& line, const std::string& id);
  // Runs the control name; false when it was refused (the error is out).
  bool RunControl(const std::string& name, const JsonValue& line, long long& result,
                  LineResult& next);
  // The control's unsigned parameter key; false (reported) when it is
  // malformed, or missing while required.
  bool ControlParameter(const JsonValue& line, const std::string& name, const char* key,
                        unsigned int& out, bool required);
  // Waits up to timeoutMs until every request acknowledged with 22 has
  // its reply: 1 when they have, 0 on time-out, -signo on a signal.
  int WaitForReplies(unsigned int timeoutMs);
  // Writes one event line and flushes it together with everything written
  // before it. flushNow false (acks only, on the main thread) leaves the
  // line in the output buffer while further input lines are already at
  // hand: the main thread flushes before it waits for input, before every
  // control and at the end, and the buffer goes out by itself whenever it
  // fills. Replies and transfers come from the module's worker and are
  // always flushed at once, which also flushes any ack before them.
  void Emit(const std::string& line, bool flushNow = true);
  void FlushOutput();
  void EmitError(const std::string& text);
  void Finish();

  CModuleLibrary& m_Library;
  CModuleInstance& m_Instance;
  CHostSwitch& m_Switch;
  CSignalWatch& m_Signals;
  int m_InputFd;
  std::FILE* m_Output;
  korvex::CWakeEvent m_Replied;  // a reply came in
  int m_Signal = 0;
  unsigned long m_LineNumber = 0;

  // The input: what was read, the line collected so far, and whether the
  // rest of a line refused as too long is being skipped.
  std::vector<char> m_ReadBuffer;
  std::string m_Line;
  bool m_Discarding = false;

  std::mutex m_OutputMutex;
  bool m_OutputBroken = false;
  bool m_FlushPending = false;  // lines written but not yet flushed

  CPendingRequests m_Pending;
};
