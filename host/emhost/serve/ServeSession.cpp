// em-host serve: reading JSON lines, driving the module, writing events.
#include "host/emhost/serve/ServeSession.h"

#include "frame/ExtensionModule.h"
#include "host/emhost/loader/ModuleHost.h"
#include "host/emhost/serve/Events.h"
#include "host/emhost/serve/Signals.h"
#include "host/emhost/serve/Utf8Check.h"
#include "message/DataStruct.h"
#include "message/SipJson.h"
#include "module/Protocol.h"
#include "util/Fd.h"

#include <chrono>
#include <cstring>
#include <exception>
#include <unistd.h>

namespace {

// How much of the input one read takes.
constexpr std::size_t kReadBytes = 1u << 16;

bool Blank(const char* text, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    if (text[i] != ' ' && text[i] != '\t' && text[i] != '\r') return false;
  }
  return true;
}

// Counts the values of value and everything in it, up to limit + 1. The
// nesting is bounded by the parser's depth limit.
std::size_t CountValues(const JsonValue& value, std::size_t limit) {
  std::size_t count = 1;
  if (value.IsObject()) {
    for (auto member = value.MemberBegin(); member != value.MemberEnd() && count <= limit;
         ++member) {
      count += CountValues(member->value, limit - count);
    }
  } else if (value.IsArray()) {
    for (auto element = value.Begin(); element != value.End() && count <= limit; ++element) {
      count += CountValues(*element, limit - count);
    }
  }
  return count;
}

std::string ExceptionText(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "an exception of unknown type";
  }
}

}  // namespace

CServeSession::CServeSession(CModuleLibrary& library, CModuleInstance& instance,
                             CHostSwitch& hostSwitch, CSignalWatch& signals, int inputFd,
                             std::FILE* output)
    : m_Library(library),
      m_Instance(instance),
      m_Switch(hostSwitch),
      m_Signals(signals),
      m_InputFd(inputFd),
      m_Output(output),
      m_ReadBuffer(kReadBytes) {
  m_Switch.SetListener(this);
}

CServeSession::~CServeSession() { m_Switch.SetListener(nullptr); }

int CServeSession::Run() {
  bool goOn = true;
  while (goOn && m_Signal == 0) {
    // Acks of the lines read so far go out before the session waits for
    // more input (see Emit).
    FlushOutput();
    switch (WaitForInput()) {
      case Input::kReadable:
        goOn = ReadInput();
        break;
      case Input::kAgain:
        break;
      case Input::kSignal:
        goOn = false;
        break;
    }
  }
  Finish();
  return m_Signal != 0 ? ExitStatusForSignal(m_Signal) : 0;
}

CServeSession::Input CServeSession::WaitForInput() {
  // The input descriptor stands in the waiter's wake-up place. A hang-up
  // or an error on it (kError) is left to the read, which then reports the
  // end of input or the error.
  const korvex::CWaiter waiter(m_InputFd, m_Signals.Fd());
  if (waiter.Wait() != korvex::CWaiter::Woken::kSignal) return Input::kReadable;
  m_Signal = m_Signals.Take();
  return m_Signal != 0 ? Input::kSignal : Input::kAgain;
}

bool CServeSession::ReadInput() {
  const ssize_t got = KORVEX_RETRY(::read(m_InputFd, m_ReadBuffer.data(), m_ReadBuffer.size()));
  if (got < 0 && errno == EAGAIN) return true;
  if (got > 0) return Consume(m_ReadBuffer.data(), static_cast<std::size_t>(got));
  // End of input: a last line without its line break still counts.
  if (!m_Discarding && !m_Line.empty()) HandleLine(m_Line.data(), m_Line.size());
  return false;
}

bool CServeSession::Consume(const char* data, std::size_t size) {
  while (size > 0 && m_Signal == 0) {
    const char* newline = static_cast<const char*>(std::memchr(data, '\n', size));
    const std::size_t piece = newline != nullptr ? static_cast<std::size_t>(newline - data) : size;
    if (TakePiece(data, piece, newline != nullptr) != LineResult::kGoOn) return false;
    const std::size_t used = newline != nullptr ? piece + 1 : piece;
    data += used;
    size -= used;
  }
  return m_Signal == 0;
}

CServeSession::LineResult CServeSession::TakePiece(const char* data, std::size_t size,
                                                   bool complete) {
  if (m_Discarding) {
    m_Discarding = !complete;
    return LineResult::kGoOn;
  }
  if (m_Line.size() + size > kMaxLineBytes) {
    ++m_LineNumber;
    EmitError("line longer than " + std::to_string(kMaxLineBytes) + " bytes");
    m_Line.clear();
    m_Discarding = !complete;
    return LineResult::kGoOn;
  }
  m_Line.append(data, size);
  if (!complete) return LineResult::kGoOn;
  const LineResult result = HandleLine(m_Line.data(), m_Line.size());
  m_Line.clear();
  return result;
}

void CServeSession::Finish() {
  FlushOutput();
  // Nothing is waited for any more; a reply that the worker still sends
  // while it is being stopped is written like any other. A copy to the BMC
  // still in flight is cancelled first: it never appears.
  m_Switch.StopHandlers();
  m_Instance.StopAndDelete();
  m_Pending.DropAll();
}

CServeSession::LineResult CServeSession::HandleLine(const char* text, std::size_t length) {
  ++m_LineNumber;
  if (Blank(text, length)) return LineResult::kGoOn;
  // Refused whole: the module would copy the bytes into replies and events,
  // which would then no longer be JSON.
  if (!ValidUtf8(text, length)) {
    EmitError("the line is not valid UTF-8");
    return LineResult::kGoOn;
  }
  CDataStruct document;
  std::string error;
  if (!document.FromJson(text, length, kMaxDepth, &error)) {
    EmitError(error);
    return LineResult::kGoOn;
  }
  JsonValue& root = document.Document();
  if (!root.IsObject()) {
    EmitError("a line must be a JSON object");
    return LineResult::kGoOn;
  }
  if (CountValues(root, kMaxValues) > kMaxValues) {
    EmitError("a line may hold at most " + std::to_string(kMaxValues) + " JSON values");
    return LineResult::kGoOn;
  }
  const JsonValue::ConstMemberIterator idMember = root.FindMember("id");
  const std::string id = idMember != root.MemberEnd() ? CompactJson(idMember->value) : kNoId;
  const bool isRequest = root.HasMember("request");
  const bool isControl = root.HasMember("control");
  if (isRequest && isControl) {
    EmitError("a line holds \"request\" or \"control\", not both");
    return LineResult::kGoOn;
  }
  if (isRequest) return HandleRequest(root, id);
  if (isControl) return HandleControl(root, id);
  EmitError("a line needs \"request\" or \"control\"");
  return LineResult::kGoOn;
}

bool CServeSession::RequestIndex(const JsonValue& line, unsigned int& index) {
  index = 0;
  const JsonValue::ConstMemberIterator member = line.FindMember("index");
  if (member == line.MemberEnd()) return true;
  // The module pads the command list up to the index: a huge or negative
  // index would have it allocate without end.
  if (!member->value.IsUint() || member->value.GetUint() > kMaxIndex) {
    EmitError("\"index\" must be an integer from 0 to " + std::to_string(kMaxIndex));
    return false;
  }
  index = member->value.GetUint();
  return true;
}

CServeSession::LineResult CServeSession::HandleRequest(JsonValue& line, const std::string& id) {
  JsonValue& request = line["request"];
  if (!request.IsObject()) {
    EmitError("\"request\" must be a JSON object (a SIP message)");
    return LineResult::kGoOn;
  }
  unsigned int index = 0;
  if (!RequestIndex(line, index)) return LineResult::kGoOn;

  SipJson message;
  // The message the module gets is exactly the one on the line, fractional
  // numbers included: the parsed value itself is moved into the message
  // rather than copied. Both documents allocate from the plain heap
  // allocator, which has no state, so the message may free what the line's
  // document allocated. The line's "request" is left holding the message's
  // empty layout and is not read again.
  static_cast<JsonValue&>(message.Document()).Swap(request);
  message.m_CmdIndex = static_cast<int>(index);

  const std::uint64_t tag = m_Pending.Add(id);
  bool queued = false;
  try {
    const int result = m_Switch.Deliver(m_Instance.Module(), message, tag);
    // Taken (result 1) and answered "queued" (status 22): a reply follows.
    // A status that only reads as 22 because nothing was written does not count.
    queued = result == 1 && message.Status() == korvex::kStatusQueued;
    Emit(AckEvent(id, result, message.Document()), false);
  } catch (...) {
    EmitError("the module threw while taking the request: " +
              ExceptionText(std::current_exception()));
  }
  // Only now may the request's reply be written: it follows its ack.
  m_Pending.Acknowledged(tag, queued);
  return LineResult::kGoOn;
}

CServeSession::LineResult CServeSession::HandleControl(const JsonValue& line,
                                                       const std::string& id) {
  // A control may block (stop, wait) or end the session: whatever happened
  // before it is out first.
  FlushOutput();
  const JsonValue& control = line["control"];
  if (!control.IsString()) {
    EmitError("\"control\" must be a string");
    return LineResult::kGoOn;
  }
  const std::string name(control.GetString(), control.GetStringLength());
  long long result = 0;
  LineResult next = LineResult::kGoOn;
  try {
    if (!RunControl(name, line, result, next)) return LineResult::kGoOn;
  } catch (...) {
    EmitError("control " + name + ": the module threw: " + ExceptionText(std::current_exception()));
    return LineResult::kGoOn;
  }
  // A wait ended by a signal has no answer: the session ends.
  if (next != LineResult::kSignal) Emit(ControlEvent(id, name, result));
  return next;
}

bool CServeSession::RunControl(const std::string& name, const JsonValue& line, long long& result,
                               LineResult& next) {
  unsigned int value = 0;
  if (name == "start") {
    m_Switch.AllowHandlers();
    result = m_Instance.Start(&m_Switch, kKorvexModuleId);
  } else if (name == "stop") {
    // A copy in flight is cancelled first; after Stop no reply comes.
    m_Switch.StopHandlers();
    result = m_Instance.Stop();
    m_Pending.DropAll();
  } else if (name == "notify") {
    if (!ControlParameter(line, name, "code", value, true)) return false;
    result = m_Instance.Module().Notify(value, nullptr, nullptr);
  } else if (name == "cabinet") {
    if (!ControlParameter(line, name, "nr", value, true)) return false;
    result = m_Instance.Module().SetServerCabinetNumber(value);
  } else if (name == "setup") {
    if (!ControlParameter(line, name, "action", value, true)) return false;
    result = m_Library.SetupAction(value);
  } else if (name == "wait") {
    value = kDefaultWaitMs;
    if (!ControlParameter(line, name, "timeout_ms", value, false)) return false;
    result = WaitForReplies(value);
    if (result < 0) next = LineResult::kSignal;
  } else if (name == "quit") {
    result = 1;
    next = LineResult::kQuit;
  } else {
    EmitError("unknown control \"" + name + "\" (start, stop, notify, cabinet, setup, wait, quit)");
    return false;
  }
  return true;
}

bool CServeSession::ControlParameter(const JsonValue& line, const std::string& name,
                                     const char* key, unsigned int& out, bool required) {
  const JsonValue::ConstMemberIterator member = line.FindMember(key);
  if (member == line.MemberEnd()) {
    if (required) {
      EmitError("control " + name + " needs \"" + key + "\" (an unsigned 32-bit number)");
    }
    return !required;
  }
  if (!member->value.IsUint()) {
    EmitError("control " + name + ": \"" + key + "\" must be an unsigned 32-bit number");
    return false;
  }
  out = member->value.GetUint();
  return true;
}

int CServeSession::WaitForReplies(unsigned int timeoutMs) {
  using Woken = korvex::CWaiter::Woken;
  const korvex::CWaiter::Clock::time_point deadline =
      korvex::CWaiter::Clock::now() + std::chrono::milliseconds(timeoutMs);
  const korvex::CWaiter waiter(m_Replied.Fd(), m_Signals.Fd());
  while (m_Pending.Waiting() != 0) {
    switch (waiter.WaitUntil(deadline)) {
      case Woken::kWake:
        m_Replied.Drain();
        break;
      case Woken::kSignal:
        m_Signal = m_Signals.Take();
        if (m_Signal != 0) return -m_Signal;
        break;
      case Woken::kDeadline:
      case Woken::kError:
        return 0;
    }
  }
  return 1;
}

void CServeSession::OnReply(std::uint64_t tag, SipJson& message) {
  std::string id = kNoId;
  const bool known = m_Pending.IdForReply(tag, id);
  Emit(ReplyEvent(id, message.Document()));
  // Forgotten only now: a wait control must not report "all answered"
  // before the reply line is out.
  if (known) m_Pending.Replied(tag);
  m_Replied.Notify();
}

void CServeSession::OnRouted(unsigned int opcode, SipJson& request) {
  if (opcode != korvex::kOpcodeHtiFileTransfer) return;
  Emit(TransferEvent(request.Document()));
}

void CServeSession::Emit(const std::string& line, bool flushNow) {
  std::lock_guard<std::mutex> lock(m_OutputMutex);
  if (m_OutputBroken) return;
  if (std::fwrite(line.data(), 1, line.size(), m_Output) != line.size() ||
      std::fputc('\n', m_Output) == EOF) {
    // The reader has gone (EPIPE): the session still runs to its end so
    // that the module is stopped properly.
    m_OutputBroken = true;
    return;
  }
  if (!flushNow) {
    m_FlushPending = true;
    return;
  }
  // Everything written before this line goes out with it, in order.
  m_FlushPending = false;
  if (std::fflush(m_Output) != 0) m_OutputBroken = true;
}

void CServeSession::FlushOutput() {
  std::lock_guard<std::mutex> lock(m_OutputMutex);
  if (m_OutputBroken || !m_FlushPending) return;
  m_FlushPending = false;
  if (std::fflush(m_Output) != 0) m_OutputBroken = true;
}

void CServeSession::EmitError(const std::string& text) { Emit(ErrorEvent(m_LineNumber, text)); }
