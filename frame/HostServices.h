// The host services a module calls: trace, events, threads, processes, the
// configuration store, the thread monitor and the message switch.
//
// In production these are defined by the host process and resolved when the
// plug-in is loaded; the plug-in itself only declares them. The stand-alone
// host (host/, target halvane_host) defines them for em-host and the tests.
// Everything marked KORVEX_HOST_API must therefore keep default visibility,
// even in code compiled with -fvisibility=hidden: an undefined reference to a
// hidden symbol cannot be resolved from the host at load time.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>

#define KORVEX_HOST_API __attribute__((visibility("default")))
#define KORVEX_LOCAL __attribute__((visibility("hidden")))

class SipJson;
class CIExtensionModule;

// ---------------------------------------------------------------------------
// Trace. The module tests m_TraceSwitch before every Print (see frame/Trace.h)
// and reads m_DebugName when it names its threads in the thread monitor.
class KORVEX_HOST_API CDebug {
 public:
  CDebug();
  ~CDebug();
  CDebug(const CDebug&) = delete;
  CDebug& operator=(const CDebug&) = delete;

  // Writes one trace line. The host filters by level; the format carries its
  // own line breaks.
  void Print(unsigned int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

  unsigned int m_TraceSwitch;  // non-zero: tracing on
  char m_DebugName[64];        // NUL-terminated name of the host program part
  void* m_pHostData;           // the host's own sink state; never touched by modules
};

extern KORVEX_HOST_API CDebug Debug;

// ---------------------------------------------------------------------------
// Event. Milliseconds throughout; 0xFFFFFFFF waits without limit.
class KORVEX_HOST_API CEvent {
 public:
  static constexpr unsigned int kInfinite = 0xFFFFFFFFu;

  // initiallySignalled 0 and manualReset 1 give the event the serializer
  // needs: created non-signalled, signalled until somebody resets it.
  CEvent(int initiallySignalled, int manualReset, const char* name, void* attributes);
  ~CEvent();
  CEvent(const CEvent&) = delete;
  CEvent& operator=(const CEvent&) = delete;

  int Set();                                  // 1 done, 0 failed
  int Reset();                                // 1 done, 0 failed
  int Wait(unsigned int timeoutMs, int alertable);  // 1 signalled, 0 timed out

 private:
  pthread_mutex_t m_Mutex;
  pthread_cond_t m_Cond;
  unsigned int m_Signalled;
  unsigned int m_ManualReset;
};

// ---------------------------------------------------------------------------
// Thread. Construction and destruction are module code: they record the
// object's life in the host's thread monitor (tasks/ThreadMonitor.cpp) and
// are kept hidden inside the plug-in. Start, WaitForTermination and Kill are
// the host's.
class KORVEX_HOST_API CThread {
 public:
  KORVEX_LOCAL explicit CThread(unsigned int killStillAliveThread = 1);
  KORVEX_LOCAL ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  // Starts threadFunction(argument) on a new thread, writes its id into
  // m_ThreadId and into the monitor entry, and sets the running bit 0x10.
  int Start(void* (*threadFunction)(void*), void* argument, unsigned long stackKb, int priority,
            unsigned int option, unsigned long affinity, int detached);
  int WaitForTermination(unsigned int timeoutMs);  // 1 the thread has ended
  int Kill(unsigned int exitCode);                 // 1 a live thread was ended

  // Layout shared with the host, in this order.
  pthread_t m_ThreadId;                  // 0: never started
  unsigned int KillStillAliveThread;     // 1: destruction kills a live thread
  unsigned int m_Reserved0;              // 0, unused by the module
  int m_Reserved1;                       // -1, unused by the module
  struct _CTHREADMONITOR_ENTRY* ThreadMonHandle;  // monitor entry, or null
};

// ---------------------------------------------------------------------------
// Processes. Process ids are unsigned 32-bit.
class KORVEX_HOST_API CProcess {
 public:
  // Runs commandLine (one executable path, no shell) and returns when it has
  // ended. processId is written as soon as the child exists, so that another
  // thread can terminate it; exitCode holds its exit code afterwards.
  static bool ExecuteCmd(const char* commandLine, unsigned int& processId, unsigned int& exitCode,
                         const char* workingDir = nullptr, bool hidden = false);
  static bool FindProcess(unsigned int& processId, const char* processName);
  static bool WaitForExit(unsigned int processId, unsigned int& exitCode, unsigned int timeoutMs);
  // Ends the process and everything it started; ExecuteCmd then reports exitCode.
  static bool TerminateProcess(unsigned int processId, unsigned int exitCode);
};

// ---------------------------------------------------------------------------
// Configuration store: a tree of keys ("\\" separated paths) with named
// string values.
class CRegistryNode;

class KORVEX_HOST_API CRegistry {
 public:
  CRegistry();
  ~CRegistry();
  CRegistry(const CRegistry&) = delete;
  CRegistry& operator=(const CRegistry&) = delete;

  static int GetProductRegistryRoot(std::string& key, const char* productName);  // non-zero: found
  long Open(const char* keyPath, CRegistryNode* root, int access);               // 0: opened
  long QueryValue(std::string& value, const char* valueName, CRegistryNode* node);  // 0: read
  void Close();

  static CRegistryNode* MLocalMachine;

  unsigned int m_LastError;  // first member: the last error code, read by modules
  void* m_pOpenKey;          // the host's handle of the opened key
};

// ---------------------------------------------------------------------------
// Thread monitor: the host's table of its threads. Byte-exact; modules write
// their entries directly under the table's and the entry's mutexes.
struct _CTHREADMONITOR_ENTRY {
  unsigned int m_StatusCounter;       // index of the newest status pair, 0..31
  unsigned int m_EntryStatus[32];
  unsigned int m_Padding0;
  pthread_mutex_t* m_pEntryMutex;     // points to m_EntryMutex
  pthread_mutex_t m_EntryMutex;
  unsigned int m_ThreadStatus[32];
  std::uint64_t m_ThreadId;           // written by the host when the thread starts
  unsigned char m_HostData[48];
  char* m_pszDebugName;               // heap copy, may be null
  char* m_pszQualifier;               // heap copy, may be null
};

struct CTHREADMONITOR {
  static constexpr int kMaxEntries = 512;

  pthread_mutex_t* m_pTableMutex;     // guards m_EntryCount and the search
  unsigned char m_HostData[40];
  int m_EntryCount;
  unsigned int m_Padding0;
  _CTHREADMONITOR_ENTRY m_Entries[kMaxEntries];
};

// Entry status bits.
constexpr unsigned int THREADMON_ENTRY_REGISTERED = 0x00000001u;
constexpr unsigned int THREADMON_ENTRY_EXITED = 0x00000010u;
constexpr unsigned int THREADMON_ENTRY_DESTROYED = 0x00000800u;
constexpr unsigned int THREADMON_ENTRY_OLD = 0x10000000u;
// Thread status bits.
constexpr unsigned int THREADMON_THREAD_OBJECT = 0x00000001u;
constexpr unsigned int THREADMON_THREAD_RUNNING = 0x00000010u;
constexpr unsigned int THREADMON_THREAD_EXITED = 0x00000100u;
constexpr unsigned int THREADMON_THREAD_HOST_BUSY_A = 0x00000200u;
constexpr unsigned int THREADMON_THREAD_HOST_BUSY_B = 0x00020000u;
constexpr unsigned int THREADMON_THREAD_DESTROYED = 0x10000000u;

static_assert(sizeof(pthread_mutex_t) == 40, "the monitor entry holds a 40-byte mutex");
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_StatusCounter) == 0);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_EntryStatus) == 4);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_Padding0) == 132);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_pEntryMutex) == 136);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_EntryMutex) == 144);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_ThreadStatus) == 184);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_ThreadId) == 312);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_HostData) == 320);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_pszDebugName) == 368);
static_assert(offsetof(_CTHREADMONITOR_ENTRY, m_pszQualifier) == 376);
static_assert(sizeof(_CTHREADMONITOR_ENTRY) == 384);
static_assert(offsetof(CTHREADMONITOR, m_pTableMutex) == 0);
static_assert(offsetof(CTHREADMONITOR, m_HostData) == 8);
static_assert(offsetof(CTHREADMONITOR, m_EntryCount) == 48);
static_assert(offsetof(CTHREADMONITOR, m_Entries) == 56);
static_assert(sizeof(CTHREADMONITOR) == 56 + 512 * 384);

extern KORVEX_HOST_API CTHREADMONITOR* pThreadMonitor;  // null: no thread monitor
extern KORVEX_HOST_API int ThreadCounter;               // live monitored threads

// ---------------------------------------------------------------------------
// The message switch, handed to CIExtensionModule::Start. Modules never call
// it through a null pointer. AsyncRequest stands directly before SendReply.
class CISwitch {
 public:
  virtual ~CISwitch() = default;
  // 5: the host is the "Halvane Agentless Service"; anything else "Halvane Server Control".
  virtual unsigned int GetServiceType() = 0;
  // Routes request to the module serving its opcode and returns when that
  // module has written its status into request, or after timeout.
  virtual int AsyncRequest(CIExtensionModule* sender, SipJson& request, unsigned int timeout) = 0;
  // Delivers a finished, earlier acknowledged (status 22) request to its
  // requester. The message is only valid during the call.
  virtual int SendReply(CIExtensionModule* sender, SipJson& message) = 0;
};
