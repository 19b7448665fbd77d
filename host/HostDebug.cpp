// The stand-alone host's trace facility: the global Debug object, its sinks
// (standard error, a file, an in-memory buffer for tests) and the level
// filter, plus the trace part of the control surface in host/HostControl.h.
//
// Print writes every call's text exactly as formatted: no prefix, no time
// stamp, no line break added. Modules rely on this because their formats
// carry their own "\n" and source column. Each call is formatted into a
// buffer of its own first and then handed to the sink in one piece under one
// mutex, so lines of concurrent threads never interleave.
//
// Print does not look at m_TraceSwitch: the switch is the caller's guard
// (frame/Trace.h tests it before calling), and a test that turns the switch
// off must be able to see a Print call that should not have happened.
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "util/Fd.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

enum class ESink { Stderr, File, Memory };

// Sink state. Lives behind Debug.m_pHostData; a function-local static so that
// Print works during static initialisation and destruction of other
// translation units (a module's global objects may trace from their
// constructors).
struct CDebugSink {
  std::mutex m_Mutex;
  ESink m_Sink = ESink::Stderr;
  korvex::CFd m_File;  // the file sink's descriptor, O_APPEND
  std::string m_Memory;
  std::atomic<unsigned int> m_MaxLevel{5};
  std::atomic<unsigned long> m_Calls{0};
};

CDebugSink& Sink() {
  // Never destroyed: threads may still trace while the process exits.
  static CDebugSink* const sink = new CDebugSink;
  return *sink;
}

// Keeps a cancellation request (CThread::Kill) from striking inside write():
// a line is either written whole or not at all, and the sink mutex is never
// left behind by an unwinding thread.
class CNoCancel {
 public:
  CNoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_Old); }
  ~CNoCancel() { pthread_setcancelstate(m_Old, nullptr); }
  CNoCancel(const CNoCancel&) = delete;
  CNoCancel& operator=(const CNoCancel&) = delete;

 private:
  int m_Old = PTHREAD_CANCEL_ENABLE;
};

}  // namespace

// Defaults: switch off (nothing is traced until the host turns it on), all
// levels up to 5 pass, output to standard error, debug name "em-host".
CDebug Debug;

CDebug::CDebug() : m_TraceSwitch(0), m_DebugName{}, m_pHostData(&Sink()) {
  std::snprintf(m_DebugName, sizeof(m_DebugName), "%s", "em-host");
}

CDebug::~CDebug() = default;

void CDebug::Print(unsigned int level, const char* format, ...) {
  CDebugSink& sink = Sink();
  sink.m_Calls.fetch_add(1, std::memory_order_relaxed);
  if (format == nullptr) return;
  if (level > sink.m_MaxLevel.load(std::memory_order_relaxed)) return;
  CNoCancel noCancel;

  char local[1024];
  std::vector<char> large;
  const char* text = local;
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(local, sizeof(local), format, args);
  va_end(args);
  if (length < 0) {
    va_end(again);
    return;  // an invalid format yields nothing rather than garbage
  }
  if (static_cast<std::size_t>(length) >= sizeof(local)) {
    large.resize(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(large.data(), large.size(), format, again);
    text = large.data();
  }
  va_end(again);
  const std::size_t size = static_cast<std::size_t>(length);

  std::lock_guard<std::mutex> lock(sink.m_Mutex);
  switch (sink.m_Sink) {
    case ESink::Memory:
      sink.m_Memory.append(text, size);
      break;
    case ESink::File:
      // A write error loses the line: there is nowhere to report it.
      if (sink.m_File) {
        korvex::WriteAll(sink.m_File.Get(), text, size);
        break;
      }
      [[fallthrough]];
    case ESink::Stderr:
      korvex::WriteAll(STDERR_FILENO, text, size);
      break;
  }
}

namespace halvane {

void TraceToStderr() {
  CDebugSink& sink = Sink();
  std::lock_guard<std::mutex> lock(sink.m_Mutex);
  sink.m_File.Reset();
  sink.m_Sink = ESink::Stderr;
}

bool TraceToFile(const char* path, std::string* error) {
  if (path == nullptr || *path == '\0') {
    if (error != nullptr) *error = "trace file: no path given";
    return false;
  }
  korvex::CFd fd(::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!fd) {
    if (error != nullptr)
      *error = std::string(path) + ": cannot open trace file: " + std::strerror(errno);
    return false;
  }
  CDebugSink& sink = Sink();
  std::lock_guard<std::mutex> lock(sink.m_Mutex);
  sink.m_File = std::move(fd);
  sink.m_Sink = ESink::File;
  return true;
}

void TraceToMemory() {
  CDebugSink& sink = Sink();
  std::lock_guard<std::mutex> lock(sink.m_Mutex);
  sink.m_File.Reset();
  sink.m_Memory.clear();
  sink.m_Sink = ESink::Memory;
}

std::string TakeTrace() {
  CDebugSink& sink = Sink();
  std::lock_guard<std::mutex> lock(sink.m_Mutex);
  std::string text;
  text.swap(sink.m_Memory);
  return text;
}

void SetTraceLevel(unsigned int maxLevel) {
  Sink().m_MaxLevel.store(maxLevel, std::memory_order_relaxed);
}

unsigned int TraceLevel() { return Sink().m_MaxLevel.load(std::memory_order_relaxed); }

void SetTraceSwitch(bool on) {
  __atomic_store_n(&Debug.m_TraceSwitch, on ? 1u : 0u, __ATOMIC_RELAXED);
}

void SetDebugName(const char* name) {
  std::snprintf(Debug.m_DebugName, sizeof(Debug.m_DebugName), "%s", name != nullptr ? name : "");
}

unsigned long PrintCallCount() { return Sink().m_Calls.load(std::memory_order_relaxed); }

}  // namespace halvane
