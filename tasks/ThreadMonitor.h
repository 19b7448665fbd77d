// Bookkeeping of the module's threads in the host's thread-monitor table
// (pThreadMonitor): registration at CThread construction, naming, exit of
// the thread function and destruction of the CThread. The module writes the
// host's table directly, under the table's and the entry's own mutexes
// (table before entry, never together with any module lock).
#pragma once

#include "frame/HostServices.h"

class CThreadMonitor {
 public:
  // A new entry for a CThread being constructed, or null (no monitor, table
  // full, no entry mutex); traces its warnings.
  static _CTHREADMONITOR_ENTRY* RegisterEntry();
  // Appends a status pair to entry: the previous pair with the given bits set
  // and cleared. Traces the overflow warning when the history is full.
  static void SetEntryStatus(_CTHREADMONITOR_ENTRY* entry, unsigned int entrySet,
                             unsigned int entryClear, unsigned int threadSet,
                             unsigned int threadClear);
  // Stores heap copies of the debug name and the qualifier in the thread's
  // entry and traces the naming.
  static void SetThreadName(CThread& thread, const char* debugName, const char* qualifier);
  // Called on the exiting thread after its thread function body: marks the
  // caller's entry exited, counts the thread out, traces THREAD_RETURN.
  static void SetEntryStatusExited(unsigned int threadResult);
};
