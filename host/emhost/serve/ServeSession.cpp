// em-host serve: reading JSON lines, driving the module, writing events.
#include "host/emhost/serve/ServeSession.h"

#include "frame/ExtensionModule.h"
#include "host/emhost/cli/EmHost.h"
#include "host/emhost/serve/JsonText.h"
#include "host/emhost/loader/ModuleHost.h"
#include "host/emhost/serve/Signals.h"
#include "host/emhost/serve/Utf8Check.h"
#include "message/DataStruct.h"
#include "message/SipJson.h"
#include "module/Protocol.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

namespace {

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
      m_WakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (m_WakeFd < 0) throw std::runtime_error(std::string("eventfd: ") + std::strerror(errno));
  m_Switch.SetListener(this);
}

CServeSession::~CServeSession() {
  m_Switch.SetListener(nullptr);
  ::close(m_WakeFd);
}

int CServeSession::Run() {
  std::string line;
  bool discarding = false;  // the rest of a line that was refused as too long
  std::vector<char> buffer(1u << 16);
  bool quit = false;
  while (!quit && m_Signal == 0) {
    // Acks of the lines read so far go out before the session waits for
    // more input (see Emit).
    FlushOutput();
    pollfd fds[2] = {{m_InputFd, POLLIN, 0}, {m_Signals.Fd(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if ((fds[1].revents & POLLIN) != 0) {
      m_Signal = m_Signals.Take();
      if (m_Signal != 0) break;
    }
    if (fds[0].revents == 0) continue;
    const ssize_t got = ::read(m_InputFd, buffer.data(), buffer.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) {
      // End of input: a last line without its line break still counts.
      if (!discarding && !line.empty()) {
        const LineResult result = HandleLine(line.data(), line.size());
        if (result == LineResult::kSignal) break;
      }
      break;
    }
    const char* data = buffer.data();
    std::size_t left = static_cast<std::size_t>(got);
    while (left > 0 && !quit && m_Signal == 0) {
      const char* newline = static_cast<const char*>(std::memchr(data, '\n', left));
      const std::size_t piece =
          newline != nullptr ? static_cast<std::size_t>(newline - data) : left;
      if (discarding) {
        if (newline != nullptr) discarding = false;
      } else if (line.size() + piece > kMaxLineBytes) {
        ++m_LineNumber;
        EmitError("line longer than " + std::to_string(kMaxLineBytes) + " bytes");
        line.clear();
        discarding = newline == nullptr;
      } else {
        line.append(data, piece);
        if (newline != nullptr) {
          const LineResult result = HandleLine(line.data(), line.size());
          line.clear();
          quit = result == LineResult::kQuit;
          if (result == LineResult::kSignal) break;
        }
      }
      const std::size_t used = newline != nullptr ? piece + 1 : piece;
      data += used;
      left -= used;
    }
  }
  Finish();
  return m_Signal != 0 ? ExitStatusForSignal(m_Signal) : 0;
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
  const std::string id = idMember != root.MemberEnd() ? CompactJson(idMember->value) : "null";
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

CServeSession::LineResult CServeSession::HandleRequest(JsonValue& line, const std::string& id) {
  JsonValue& request = line["request"];
  if (!request.IsObject()) {
    EmitError("\"request\" must be a JSON object (a SIP message)");
    return LineResult::kGoOn;
  }
  unsigned int index = 0;
  const JsonValue::ConstMemberIterator indexMember = line.FindMember("index");
  if (indexMember != line.MemberEnd()) {
    // The module pads the command list up to the index: a huge or negative
    // index would have it allocate without end.
    if (!indexMember->value.IsUint() || indexMember->value.GetUint() > kMaxIndex) {
      EmitError("\"index\" must be an integer from 0 to " + std::to_string(kMaxIndex));
      return LineResult::kGoOn;
    }
    index = indexMember->value.GetUint();
  }

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
  std::string ack;
  bool queued = false;
  try {
    const int result = m_Switch.Deliver(m_Instance.Module(), message, tag);
    // Taken (result 1) and answered "queued" (status 22): a reply follows.
    // A status that only reads as 22 because nothing was written does not count.
    queued = result == 1 && message.Status() == 22;
    ack = "{\"id\":" + id + ",\"event\":\"ack\",\"result\":" + std::to_string(result) +
          ",\"message\":" + message.ToJson() + "}";
  } catch (...) {
    ack.clear();
    EmitError("the module threw while taking the request: " +
              ExceptionText(std::current_exception()));
  }
  if (!ack.empty()) Emit(ack, false);
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
  auto parameter = [&](const char* key, unsigned int& out, bool required) {
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
  };

  long long result = 0;
  LineResult next = LineResult::kGoOn;
  try {
    if (name == "start") {
      m_Switch.AllowHandlers();
      result = m_Instance.Start(&m_Switch, kKorvexModuleId);
    } else if (name == "stop") {
      // A copy in flight is cancelled first; after Stop no reply comes.
      m_Switch.StopHandlers();
      result = m_Instance.Stop();
      m_Pending.DropAll();
    } else if (name == "notify") {
      unsigned int code = 0;
      if (!parameter("code", code, true)) return LineResult::kGoOn;
      result = m_Instance.Module().Notify(code, nullptr, nullptr);
    } else if (name == "cabinet") {
      unsigned int nr = 0;
      if (!parameter("nr", nr, true)) return LineResult::kGoOn;
      result = m_Instance.Module().SetServerCabinetNumber(nr);
    } else if (name == "setup") {
      unsigned int action = 0;
      if (!parameter("action", action, true)) return LineResult::kGoOn;
      result = m_Library.SetupAction(action);
    } else if (name == "wait") {
      unsigned int timeoutMs = kDefaultWaitMs;
      if (!parameter("timeout_ms", timeoutMs, false)) return LineResult::kGoOn;
      const int waited = WaitForReplies(timeoutMs);
      if (waited < 0) return LineResult::kSignal;
      result = waited;
    } else if (name == "quit") {
      result = 1;
      next = LineResult::kQuit;
    } else {
      EmitError("unknown control \"" + name +
                "\" (start, stop, notify, cabinet, setup, wait, quit)");
      return LineResult::kGoOn;
    }
  } catch (...) {
    EmitError("control " + name + ": the module threw: " + ExceptionText(std::current_exception()));
    return LineResult::kGoOn;
  }
  Emit("{\"id\":" + id + ",\"event\":\"control\",\"control\":" + JsonQuote(name) +
       ",\"result\":" + std::to_string(result) + "}");
  return next;
}

int CServeSession::WaitForReplies(unsigned int timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    if (m_Pending.Waiting() == 0) return 1;
    const Clock::time_point now = Clock::now();
    if (now >= deadline) return 0;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now);
    pollfd fds[2] = {{m_WakeFd, POLLIN, 0}, {m_Signals.Fd(), POLLIN, 0}};
    const int timeout = static_cast<int>(std::min<long long>(left.count() + 1, 1000000));
    if (::poll(fds, 2, timeout) < 0 && errno != EINTR) return 0;
    if ((fds[1].revents & POLLIN) != 0) {
      m_Signal = m_Signals.Take();
      if (m_Signal != 0) return -m_Signal;
    }
    if ((fds[0].revents & POLLIN) != 0) {
      std::uint64_t count;
      if (::read(m_WakeFd, &count, sizeof(count)) < 0) {
        // Nothing to drain (another wake-up took it); the loop looks again.
      }
    }
  }
}

void CServeSession::OnReply(std::uint64_t tag, SipJson& message) {
  std::string id = "null";
  const bool known = m_Pending.IdForReply(tag, id);
  Emit("{\"id\":" + id + ",\"event\":\"reply\",\"message\":" + message.ToJson() + "}");
  // Forgotten only now: a wait control must not report "all answered"
  // before the reply line is out.
  if (known) m_Pending.Replied(tag);
  const std::uint64_t one = 1;
  if (::write(m_WakeFd, &one, sizeof(one)) < 0) {
    // The counter is full only if nobody reads it; a waiter wakes anyway.
  }
}

void CServeSession::OnRouted(unsigned int opcode, SipJson& request) {
  if (opcode != korvex::kOpcodeHtiFileTransfer) return;
  Emit("{\"event\":\"transfer\",\"message\":" + request.ToJson() + "}");
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

void CServeSession::EmitError(const std::string& text) {
  Emit("{\"event\":\"error\",\"line\":" + std::to_string(m_LineNumber) +
       ",\"error\":" + JsonQuote(text) + "}");
}
