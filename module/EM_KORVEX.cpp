// EM_KORVEX lifecycle: construction, properties, Start, Stop, the clean-up
// setup action and destruction.
#include "module/EM_KORVEX.h"

#include "frame/Trace.h"
#include "module/ModuleConstants.h"
#include "util/Directory.h"
#include "util/FileStatus.h"

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Copies text into a fixed 100-byte field: the text, zeros up to the end,
// and the last byte forced to 0 whatever the text's length.
void FillTextField(char (&field)[100], const char* text) {
  std::memset(field, 0, sizeof(field));
  std::strncpy(field, text, sizeof(field));
  field[sizeof(field) - 1] = '\0';
}

}  // namespace

EM_KORVEX::EM_KORVEX() : m_Installed(0), m_ToolProcessId(0) {
  KORVEX_TRACE(3, "\nEM_KORVEX           : CLASS CREATED!");
  __atomic_store_n(&m_Installed, 0u, __ATOMIC_RELAXED);
  __atomic_store_n(&m_ToolProcessId, 0u, __ATOMIC_RELAXED);
}

EM_KORVEX::~EM_KORVEX() {
  KORVEX_TRACE(1, "\nEM_KORVEX           : CLASS DESTROYED!");
  // The host stops the module before it deletes it, so normally the worker
  // is gone by now. A host that skipped Stop leaves it alive: it must be out
  // of OnTaskExecution, and kept out, before the strings below go. Ending it
  // is left to the serializer's destructor (TerminateSerialization), so such
  // a host sees the same lines as for any serializer with a live worker. A
  // task still running after the serializer's usual grace is ended with its
  // thread; the tool process it may have started keeps running, as the
  // module only ends that in Stop. This must be the first thing the most
  // derived destructor does: only then is the worker held before the
  // object's dynamic type changes on the way down.
  QuiesceWorker();
}

const char* EM_KORVEX::GetName() { return korvex::kModuleName; }

int EM_KORVEX::GetProperties(_ExtensionModuleProperties& properties) {
  // The host tells how much it allocated; both text fields must fit.
  if (properties.m_RecordSize <= 245u) {
    return 0;
  }
  properties.m_PropertiesKind = 2;
  FillTextField(properties.m_ModuleName, korvex::kModuleName);
  FillTextField(properties.m_ModuleDescription, korvex::kModuleDescription);
  properties.m_FlagsB = static_cast<unsigned char>(properties.m_FlagsB & 0xFCu);
  properties.m_FlagsA = static_cast<unsigned char>(properties.m_FlagsA | 0x03u);
  return 1;
}

int EM_KORVEX::Start(CISwitch* pSwitch, unsigned int moduleId) {
  KORVEX_TRACE(1, "\n\n" EM_KORVEX_RULE);
  KORVEX_TRACE(1, "\nEM_KORVEX (Start)   : ### Starting module %s ###\n", GetName());

  CExtensionModule::Start(pSwitch, moduleId);

  __atomic_store_n(&m_Installed, 0u, __ATOMIC_RELAXED);
  __atomic_store_n(&m_ToolProcessId, 0u, __ATOMIC_RELAXED);

  if (!GetKorvexPath(m_ToolRoot)) {
    KORVEX_TRACE(1,
                 "\nEM_KORVEX (Start)   : ## ERROR! Could not get the Korvex installation path - "
                 "module not started!");
  } else {
    m_ExecutablePath.Format("%s%s", m_ToolRoot.c_str(), korvex::kExecutableName);
    m_ArchivePath.Format("%s%s", m_ToolRoot.c_str(), korvex::kArchiveName);
    KORVEX_TRACE(2, "\nEM_KORVEX (Start)   : Korvex executable: \"%s\"", m_ExecutablePath.c_str());
    KORVEX_TRACE(2, "\nEM_KORVEX (Start)   : Korvex archive:    \"%s\"\n", m_ArchivePath.c_str());
    KORVEX_TRACE(3, "\nEM_KORVEX (Start)   : Check for Korvex executable file existing...");

    // Any kind of file counts: the installer decides what "Korvex" is.
    struct stat status;
    if (korvex::FileStatus(m_ExecutablePath.c_str(), status) == 0) {
      KORVEX_TRACE(1, "\nEM_KORVEX (Start)   : -> Korvex is installed - module will be started");
      __atomic_store_n(&m_Installed, 1u, __ATOMIC_RELAXED);
    } else {
      KORVEX_TRACE(1, "\nEM_KORVEX (Start)   : -> Korvex not installed - module not started!");
    }
  }

  if (__atomic_load_n(&m_Installed, __ATOMIC_RELAXED) == 0) {
    KORVEX_TRACE(1, "\n" EM_KORVEX_RULE "\n");
    return 0;
  }

  KORVEX_TRACE(3, "\nEM_KORVEX (Start)   : Start task handler");
  StartSerialization();
  KORVEX_TRACE(1, "\n\nEM_KORVEX (Start)   : Start of module completed");
  KORVEX_TRACE(1, "\n" EM_KORVEX_RULE "\n");
  return 1;
}

int EM_KORVEX::Stop() {
  KORVEX_TRACE(1, "\n\n" EM_KORVEX_RULE);
  KORVEX_TRACE(1, "\n### Stopping module %s ###\n", GetName());

  // The worker goes first: once it is gone nobody writes m_ToolProcessId
  // any more, and a worker killed inside ExecuteCmd leaves the id of the
  // still running tool behind for us.
  TerminateSerialization();

  const unsigned int processId = __atomic_load_n(&m_ToolProcessId, __ATOMIC_ACQUIRE);
  if (processId != 0) {
    KORVEX_TRACE(1,
                 "\nEM_KORVEX (Stop)    : -> Korvex archive creation in progress - terminate "
                 "process (#%d) and wait for exit...",
                 processId);
    if (!CProcess::TerminateProcess(processId, korvex::kToolTerminatedExitCode)) {
      KORVEX_TRACE(1,
                   "\n\nEM_KORVEX (Stop)    : ## ERROR! Korvex process could not be terminated "
                   "(process not found; already terminated?)!\n");
    } else {
      unsigned int exitCode = 0;
      if (CProcess::WaitForExit(processId, exitCode, korvex::kToolExitWaitMs)) {
        KORVEX_TRACE(1, "\nEM_KORVEX (Stop)    : Korvex process exit");
      } else {
        KORVEX_TRACE(1,
                     "\n\nEM_KORVEX (Stop)    : ## ERROR! Korvex process could not be terminated "
                     "in time!\n");
      }
    }
  } else {
    KORVEX_TRACE(4,
                 "\nEM_KORVEX (Stop)    : Korvex process not running, can stop module "
                 "immediately");
  }

  KORVEX_TRACE(1, "\n\n### Stop of module %s completed successfully ###", GetName());
  KORVEX_TRACE(1, "\n" EM_KORVEX_RULE "\n");
  return 1;
}

namespace {

// Action 4 once the root is known: the archive goes, and the data directory
// with everything in it. The result is the installer's: the removal judges
// its own final rmdir in reverse, so a directory removed completely gives 0
// and one left in place gives 1; nothing to remove gives 1.
unsigned int RemoveArchiveAndData(const std::string& root, const char* dataDirectory) {
  EM_KORVEX::CPathString archivePath;
  archivePath.Format("%s%s", root.c_str(), korvex::kArchiveName);
  KORVEX_TRACE(3, "\nEM_KORVEX (SetupAct): Korvex archive path: \"%s\"\n", archivePath.c_str());
  unlink(archivePath.c_str());  // a missing archive is fine

  KORVEX_TRACE(2, "\nEM_KORVEX (SetupAct): Remove complete Korvex archive data dir \"%s\"...",
               dataDirectory);
  struct stat status;
  if (dataDirectory[0] == '\0' || korvex::FileStatus(dataDirectory, status) != 0 ||
      !S_ISDIR(status.st_mode)) {
    return 1;
  }
  return static_cast<unsigned int>(CDirectory::RemoveDir(dataDirectory, 1));
}

}  // namespace

unsigned int EM_KORVEX::SetupAction(unsigned int action, const char* dataDirectory) {
  KORVEX_TRACE(5, "\nEM_KORVEX           : -> SetupAction");
  unsigned int result = 0;

  if (dataDirectory == nullptr) {
    dataDirectory = "";  // none named: nothing is removed but the archive
  }
  if (action == korvex::kSetupActionCleanup) {
    KORVEX_TRACE(1, "\nEM_KORVEX (SetupAct): ## Cleanup Korvex archives");
    std::string root;
    if (!GetKorvexPath(root)) {
      KORVEX_TRACE(1, "\nEM_KORVEX (SetupAct): ## ERROR! Korvex path could not be evaluated!");
    } else {
      result = RemoveArchiveAndData(root, dataDirectory);
    }
  }

  KORVEX_TRACE(5, "\nEM_KORVEX           : <- SetupAction");
  return result;
}
