// Test support for the task serializer suites: a serializer whose hooks
// record what they see and trace a line of their own, a gate for jobs that
// must block, a watch on record allocations, and a trace script that waits
// for the expected trace lines and compares them verbatim.
#pragma once

#include "frame/HostServices.h"
#include "frame/Trace.h"
#include "host/HostControl.h"
#include "message/SipJson.h"
#include "tasks/TaskSerializer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace serializer_test {

using CSerializer = CTaskSerializer<SipJson>;
using Priority = CSerializer::_TaskPriority;
using Record = CSerializer::_TaskRecord;

// Generous bound for anything a test waits for: the suites also run under
// the thread sanitizer on a loaded two-core machine. Nothing is timed; this
// only turns a hang into a failure.
constexpr std::chrono::seconds kPatience(30);

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline std::string Format(const char* format, ...) {
  char buffer[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  return buffer;
}

inline unsigned int Low32(const void* address) {
  return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(address));
}

inline Priority Level(int level) { return static_cast<Priority>(level); }

// A request message whose current command carries id as "OI".
inline std::unique_ptr<SipJson> MakeTask(unsigned int id) {
  auto task = std::make_unique<SipJson>();
  task->SetCmdValue(task->GetCmd(), "OI", id, 0);
  return task;
}

// ---------------------------------------------------------------------------
// Allocation watch (SerializerAllocWatch.cpp replaces the global operator
// new and delete of the test program).
namespace alloc {
// Notes when the block at address is handed to operator delete, on any
// thread, from now on.
void Watch(const void* address);
bool Freed(const void* address);
void Unwatch(const void* address);
// Counts, on the calling thread only, operator new calls of exactly `size`
// bytes and which of them are deleted again before EndWindow.
void BeginWindow(std::size_t size);
struct WindowResult {
  int allocated;  // operator new calls of the size
  int live;       // of those, not deleted yet
};
WindowResult EndWindow();
}  // namespace alloc

// ---------------------------------------------------------------------------
// The exact trace texts of the serializer, typed out here independently of
// the code under test.
namespace line {
inline std::string EnableAll() { return "\nCTaskSerializer     : Enable all Tasks"; }
inline std::string Raised(int level) {
  return Format("\nCTaskSerializer     : Task at level %d raised", level);
}
inline std::string Locked(int level) {
  return Format("\nCTaskSerializer     : Manager locked for Tasks at level %d. Task ignored!",
                level);
}
inline std::string Full(int level) {
  return Format("\nCTaskSerializer     : ## ERROR! Task queue for priority %d is full", level);
}
inline std::string Inserted(int level) {
  return Format("\nCTaskSerializer     : Task with priority %d inserted into task queue!", level);
}
inline std::string StartSerialization() { return "\nCTaskSerializer     : StartSerialization!"; }
inline std::string StartThread() { return "\nCTaskSerializer     : START THREAD TaskHandler()!"; }
inline std::string Waiting() {
  return "\nCTaskSerializer     : Waiting on task queue for next task ...";
}
inline std::string Wakeup() { return "\nCTaskSerializer     : Wakeup from (any) task queue!"; }
inline std::string Checking() {
  return "\nCTaskSerializer     : Checking Task queue for Task records ..";
}
inline std::string Process(const void* record, int level) {
  return Format("\nCTaskSerializer     : Process Task (Record 0x%X) at level %d", Low32(record),
                level);
}
inline std::string Completed(const void* record, int level) {
  return Format("\nCTaskSerializer     : Task (Record 0x%X) at level %d completed", Low32(record),
                level);
}
inline std::string TaskException() {
  return "\n\nCTaskSerializer     : ## EXCEPTION in OnTaskExecution()! ##";
}
inline std::string EventSet(const void* event) {
  return Format("\nCTaskSerializer     : External event object 0x%X set!", Low32(event));
}
inline std::string ExitThread() { return "\nCTaskSerializer     : EXIT THREAD TaskHandler()!"; }
inline std::string Terminate() { return "\nCTaskSerializer     : TerminateSerialization!"; }
inline std::string DisableAll() { return "\nCTaskSerializer     : Disable all Tasks"; }
inline std::string AllRemoved() {
  return "\nCTaskSerializer     : All pending tasks removed from queues!";
}
inline std::string Terminated() { return "\nCTaskSerializer     :   terminated"; }
inline std::string Destroyed() { return "\n\nCTaskSerializer     : Class destroyed!"; }

// Thread-monitor lines written on the serializer's behalf.
inline std::string ThreadName(pthread_t thread, const char* debugName) {
  return Format("CThread::SetThreadName: ThreadId = 0x%08X, DebugName = %s, Qualifier = (%s)\n",
                static_cast<unsigned int>(thread), debugName, "_TaskHndlr");
}
inline std::string ThreadReturn(pthread_t thread) {
  return Format("THREAD_RETURN: ## INFO: Thread = 0x%08X exited, Return = 0x%08x##\n",
                static_cast<unsigned int>(thread), 0u);
}

// Lines of the test serializer's own hooks (level 1, so they are visible at
// every trace level and order the other lines around them).
inline std::string HookStarted() { return "\nTEST                : started"; }
inline std::string HookStopped() { return "\nTEST                : stopped"; }
inline std::string HookExecute(unsigned int id, int level) {
  return Format("\nTEST                : execute %u at level %d", id, level);
}
inline std::string HookEmpty(int level) {
  return Format("\nTEST                : queue empty at level %d", level);
}
inline std::string HookOverrun(unsigned int id, int level) {
  return Format("\nTEST                : overrun %u at level %d", id, level);
}
}  // namespace line

// ---------------------------------------------------------------------------
// A gate a job can block on until the test opens it.
class CGate {
 public:
  void Open() {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      m_Open = true;
    }
    m_Changed.notify_all();
  }
  // False when the gate stayed closed for kPatience.
  bool Pass() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Changed.wait_for(lock, kPatience, [&] { return m_Open; });
  }

 private:
  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  bool m_Open = false;
};

// ---------------------------------------------------------------------------
// The serializer under test. Its hooks record their calls, trace a line of
// their own at level 1 and then run an optional test action.
class CTestSerializer : public CSerializer {
 public:
  CTestSerializer() = default;
  // The worker may still be inside OnTaskExecution: stop it while this
  // object is whole, as every class deriving from the serializer must.
  ~CTestSerializer() override { TerminateSerialization(); }

  // Test actions; set them before the worker can call the hook.
  std::function<void(SipJson&, Priority)> m_OnExecute;
  std::function<void(Priority)> m_OnEmpty;
  std::function<void(SipJson&, Priority)> m_OnOverrun;

  void OnTaskExecution(SipJson& task, Priority level) override {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      m_Executed.push_back(task.ObjectId());
      m_ExecutedTasks.push_back(&task);
      m_ExecutingThread = pthread_self();
    }
    m_Changed.notify_all();
    KORVEX_TRACE(1, "%s", line::HookExecute(task.ObjectId(), level).c_str());
    if (m_OnExecute) m_OnExecute(task, level);
  }
  void OnTaskQueueEmpty(Priority level) override {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      m_Empty.push_back(level);
    }
    KORVEX_TRACE(1, "%s", line::HookEmpty(level).c_str());
    if (m_OnEmpty) m_OnEmpty(level);
  }
  void OnTaskQueueNodeOverrun(SipJson& task, Priority level) override {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      m_Overruns.emplace_back(&task, level);
    }
    KORVEX_TRACE(1, "%s", line::HookOverrun(task.ObjectId(), level).c_str());
    if (m_OnOverrun) m_OnOverrun(task, level);
  }
  void OnSerializationStarted() override {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      ++m_Started;
      m_WorkerThread = pthread_self();
    }
    KORVEX_TRACE(1, "%s", line::HookStarted().c_str());
  }
  void OnSerializationStopped() override {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      ++m_Stopped;
    }
    KORVEX_TRACE(1, "%s", line::HookStopped().c_str());
  }

  // Waits until OnTaskExecution was entered `count` times in all.
  bool WaitExecuted(std::size_t count) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Changed.wait_for(lock, kPatience, [&] { return m_Executed.size() >= count; });
  }

  // InsertTask under the serializer's own lock, then the record it queued
  // (null when refused) is read from the ring and watched for its release
  // before the worker can take it out.
  Record* InsertWatched(SipJson& task, Priority level, CEvent* event, int* result) {
    std::lock_guard<CCriticalSection> guard(m_Lock);
    const std::uint64_t before = Queue(0).m_Used;
    *result = InsertTask(task, level, event);
    if (*result == 0 || Queue(0).m_Used == before) return nullptr;
    Record* record = NewestRecord();
    alloc::Watch(record);
    return record;
  }

  // White-box views of the serializer's state.
  CRingBuffer& Queue(int level) { return *m_pLevels[level].m_pQueue; }
  unsigned int Enabled(int level) {
    return __atomic_load_n(&m_pLevels[level].m_Enabled, __ATOMIC_ACQUIRE);
  }
  unsigned int Serviced(int level) { return m_pLevels[level].m_Serviced; }
  unsigned int LevelCount() const { return m_LevelCount; }
  unsigned int TerminateFlag() const { return __atomic_load_n(&m_TerminateFlag, __ATOMIC_ACQUIRE); }
  unsigned int ThreadStartOption() const { return m_ThreadStartOption; }
  CEvent& WakeupEvent() { return m_WakeupEvent; }
  CThread& Worker() { return m_Thread; }
  CCriticalSection& Lock() { return m_Lock; }
  bool WorkerAlive() { return IsWorkerAlive(); }
  _TaskLevel* Levels() { return m_pLevels; }

  // The record pointer most recently written into level 0's ring: the 8
  // bytes before the write index, read byte by byte across the wrap.
  Record* NewestRecord() {
    std::lock_guard<CCriticalSection> guard(m_Lock);
    CRingBuffer& queue = Queue(0);
    unsigned char bytes[sizeof(Record*)];
    std::uint64_t index = queue.m_WriteIndex;
    for (std::size_t i = sizeof(bytes); i > 0; --i) {
      index = (index == 0 ? queue.m_Size : index) - 1;
      bytes[i - 1] = queue.m_pBuffer[index];
    }
    Record* record = nullptr;
    std::memcpy(&record, bytes, sizeof(record));
    return record;
  }

  // Everything the hooks saw, copied under their mutex.
  std::vector<unsigned int> Executed() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Executed;
  }
  std::vector<SipJson*> ExecutedTasks() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_ExecutedTasks;
  }
  std::vector<int> Empty() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Empty;
  }
  std::vector<std::pair<SipJson*, int>> Overruns() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Overruns;
  }
  int Started() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Started;
  }
  int Stopped() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Stopped;
  }
  pthread_t WorkerThread() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_WorkerThread;
  }

 private:
  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  std::vector<unsigned int> m_Executed;
  std::vector<SipJson*> m_ExecutedTasks;
  std::vector<int> m_Empty;
  std::vector<std::pair<SipJson*, int>> m_Overruns;
  int m_Started = 0;
  int m_Stopped = 0;
  pthread_t m_WorkerThread{};
  pthread_t m_ExecutingThread{};
};

// ---------------------------------------------------------------------------
// The expected trace, built as the test goes. Lines above the trace level
// are left out of the expectation, so one scenario checks every level.
//
// Expect() adds text in a known order; Worker() adds text that the worker
// writes while the test's thread writes too, so that only the order within
// each side is known. Sync() waits until as much text as expected has been
// written and compares it: exactly, or as an interleaving of whole trace
// calls of the two sides. What comes beyond stays for the next Sync.
class CTraceScript {
 public:
  explicit CTraceScript(unsigned int level = 5) : m_Level(level) {
    halvane::TraceToMemory();
    halvane::SetTraceLevel(level);
    halvane::SetTraceSwitch(true);
    halvane::TakeTrace();
  }
  ~CTraceScript() {
    halvane::SetTraceSwitch(false);
    halvane::TakeTrace();
  }
  CTraceScript(const CTraceScript&) = delete;
  CTraceScript& operator=(const CTraceScript&) = delete;

  unsigned int Level() const { return m_Level; }

  void Expect(unsigned int level, const std::string& text) {
    if (level <= m_Level) m_Main.push_back(text);
  }
  void Worker(unsigned int level, const std::string& text) {
    if (level <= m_Level) m_Side.push_back(text);
  }

  void Sync(const char* where) {
    SCOPED_TRACE(where);
    std::size_t length = 0;
    for (const auto& text : m_Main) length += text.size();
    for (const auto& text : m_Side) length += text.size();
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
      m_Pending += halvane::TakeTrace();
      if (m_Pending.size() >= length || std::chrono::steady_clock::now() > deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const std::string seen = m_Pending.substr(0, length);
    m_Pending.erase(0, seen.size());
    if (m_Side.empty() || m_Main.empty()) {
      EXPECT_EQ(Join(m_Main) + Join(m_Side), seen);
    } else {
      EXPECT_TRUE(IsInterleaving(seen, m_Main, m_Side)) << "trace:\n"
                                                        << seen << "\n--- is no interleaving of:\n"
                                                        << Join(m_Main) << "\n--- and:\n"
                                                        << Join(m_Side);
    }
    m_Main.clear();
    m_Side.clear();
  }

  // The last Sync: nothing else may have been written.
  void Finish(const char* where) {
    Sync(where);
    m_Pending += halvane::TakeTrace();
    EXPECT_EQ("", m_Pending) << where << ": unexpected trace at the end";
    m_Pending.clear();
  }

  static std::string Join(const std::vector<std::string>& parts) {
    std::string text;
    for (const auto& part : parts) text += part;
    return text;
  }

  // Whether text is the two sequences of whole chunks interleaved, each in
  // its own order.
  static bool IsInterleaving(const std::string& text, const std::vector<std::string>& a,
                             const std::vector<std::string>& b) {
    std::map<std::pair<std::size_t, std::size_t>, bool> memo;
    std::function<bool(std::size_t, std::size_t, std::size_t)> from =
        [&](std::size_t i, std::size_t j, std::size_t at) -> bool {
      if (i == a.size() && j == b.size()) return at == text.size();
      auto key = std::make_pair(i, j);
      auto found = memo.find(key);
      if (found != memo.end()) return found->second;
      bool ok = false;
      if (i < a.size() && text.compare(at, a[i].size(), a[i]) == 0)
        ok = from(i + 1, j, at + a[i].size());
      if (!ok && j < b.size() && text.compare(at, b[j].size(), b[j]) == 0) {
        ok = from(i, j + 1, at + b[j].size());
      }
      memo[key] = ok;
      return ok;
    };
    return from(0, 0, 0);
  }

 private:
  unsigned int m_Level;
  std::vector<std::string> m_Main;
  std::vector<std::string> m_Side;
  std::string m_Pending;
};

// The lines of one task run by a worker that waits for work: wake-up, scan,
// the task, its event, the empty report, and the wait for the next one.
inline void ExpectRun(CTraceScript& script, const Record* record, unsigned int id, int level,
                      const CEvent* event, bool throws, bool lastInQueue) {
  script.Expect(4, line::Wakeup());
  script.Expect(4, line::Checking());
  script.Expect(5, line::Process(record, level));
  script.Expect(1, line::HookExecute(id, level));
  if (throws) {
    script.Expect(1, line::TaskException());
  } else {
    script.Expect(5, line::Completed(record, level));
  }
  if (event != nullptr) script.Expect(5, line::EventSet(event));
  if (lastInQueue) script.Expect(1, line::HookEmpty(level));
  script.Expect(4, line::Waiting());
}

// The lines of a worker that wakes, finds the queues empty (and resets the
// event) and waits again.
inline void ExpectEmptyScan(CTraceScript& script) {
  script.Expect(4, line::Wakeup());
  script.Expect(4, line::Checking());
  script.Expect(4, line::Waiting());
}

// The lines of a task of level 0 inserted while the worker waits, up to the
// start of its job: the raised level, the insert, the worker's wake-up and
// scan, and the hand-over of the task.
inline void ExpectPickedUp(CTraceScript& script, const Record* record, unsigned int id) {
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  script.Expect(4, line::Wakeup());
  script.Expect(4, line::Checking());
  script.Expect(5, line::Process(record, 0));
  script.Expect(1, line::HookExecute(id, 0));
}

// The lines of StartSerialization on the calling thread and of the new
// worker up to its first wait, which run side by side.
inline void ExpectStart(CTraceScript& script, CTestSerializer& serializer) {
  script.Expect(4, line::StartSerialization());
  script.Expect(1, line::ThreadName(serializer.Worker().m_ThreadId, Debug.m_DebugName));
  script.Worker(4, line::StartThread());
  script.Worker(1, line::HookStarted());
  script.Worker(4, line::Waiting());
}

// The lines of TerminateSerialization of an idle, live worker up to the
// worker's exit from its loop; a thread monitor, where installed, reports
// the exit next.
inline void ExpectIdleWorkerStopping(CTraceScript& script) {
  script.Expect(4, line::Terminate());
  script.Expect(4, line::DisableAll());
  script.Expect(4, line::AllRemoved());
  script.Expect(4, line::Wakeup());
  script.Expect(1, line::HookStopped());
  script.Expect(4, line::ExitThread());
}

// The lines of TerminateSerialization of an idle, live worker, the worker's
// exit included (no thread monitor installed).
inline void ExpectIdleTermination(CTraceScript& script, pthread_t worker) {
  ExpectIdleWorkerStopping(script);
  script.Expect(1, line::ThreadReturn(worker));
  script.Expect(5, line::Terminated());
}

// The lines of destroying a CTestSerializer whose worker is gone: its own
// destructor's termination, the base's termination and the farewell.
inline void ExpectDestruction(CTraceScript& script) {
  script.Expect(4, line::Terminate());
  script.Expect(5, line::Terminated());
  script.Expect(4, line::Terminate());
  script.Expect(5, line::Terminated());
  script.Expect(4, line::Destroyed());
}

// Common set-up: trace into memory, a known debug name, no thread monitor.
class SerializerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    halvane::TraceToMemory();
    halvane::SetTraceSwitch(false);
    halvane::SetTraceLevel(5);
    halvane::SetDebugName("SerializerTests");
    halvane::RemoveThreadMonitor();
    halvane::TakeTrace();
  }
  void TearDown() override {
    halvane::SetTraceSwitch(false);
    halvane::TakeTrace();
  }
};

}  // namespace serializer_test
