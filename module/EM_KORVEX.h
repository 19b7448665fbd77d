// EM_KORVEX: the diagnostic archive module. It answers whether the Korvex
// collection tool is installed, runs the tool to create its archive and hands
// the archive to the BMC through the HTI module. The two long jobs are queued
// on the module's own task serializer and answered later through the switch.
#pragma once

#include "frame/ExtensionModule.h"
#include "message/SipJson.h"
#include "module/Protocol.h"
#include "tasks/TaskSerializer.h"
#include "util/SVString.h"

#include <ctime>
#include <string>

class EM_KORVEX : public CExtensionModule, public CTaskSerializer<SipJson> {
 public:
  using CPathString = CSVString<std::string, char>;
  using _TaskPriority = CTaskSerializer<SipJson>::_TaskPriority;

  EM_KORVEX();
  ~EM_KORVEX() override;
  EM_KORVEX(const EM_KORVEX&) = delete;
  EM_KORVEX& operator=(const EM_KORVEX&) = delete;

  // --- the host's view (CIExtensionModule) -------------------------------
  int GetProperties(_ExtensionModuleProperties& properties) override;
  int Start(CISwitch* pSwitch, unsigned int moduleId) override;
  int Stop() override;
  int ModuleRequest(SipJson& request) override;
  const char* GetName() override;

  // --- the worker's view (CTaskSerializer<SipJson>) ----------------------
  void OnTaskExecution(SipJson& task, _TaskPriority priority) override;

  // Setup action of the product installer; 4 removes the archive and the
  // tool's data directory (the fixed "/var/log/Korvex" unless the caller
  // names another, as the unit tests do to run without root; null or empty:
  // none). Needs no instance.
  static unsigned int SetupAction(unsigned int action,
                                  const char* dataDirectory = korvex::kDataDirectory);

  // The tool's installation root from the configuration store, always ending
  // in "/"; 1 found, 0 not. The lookup em-host makes too (module/ToolRoot.h),
  // here with the module's trace lines.
  static int GetKorvexPath(std::string& root);
  // Deletes an archive left by an earlier run; 1 one was deleted, 0 none or
  // it could not be deleted.
  int DeleteArchiveFile();
  // The jobs behind opcodes 0x3401 and 0x3402. Each writes its final status
  // into the request and returns true exactly when that status is 0.
  bool StartArchiveCreation(SipJson& request);
  bool TransferArchiveToBmc(SipJson& request);

  // Own fields, after the two bases, in this order.
  unsigned int m_Installed;      // 1: Start found the executable; read by ModuleRequest
  CPathString m_ToolRoot;        // installation root, ends in "/"
  CPathString m_ExecutablePath;  // m_ToolRoot + "Korvex"
  CPathString m_ArchivePath;     // m_ToolRoot + "Korvex_Data.zip"
  unsigned int m_ToolProcessId;  // running tool started by archive creation, 0: none

 private:
  // The steps of ModuleRequest: the opcode's handling (1 this module's,
  // 0 not), queueing a long request, the installation answer, and the
  // exception's status and trace.
  int DispatchOpcode(SipJson& request, unsigned int opcode);
  void QueueRequest(SipJson& request);
  void AnswerIsInstalled(SipJson& request);
  static void ReportException(SipJson& request);
  // The steps of archive creation: the run unless another tool is in the
  // way, and the tool's run itself; each returns the job's final status.
  unsigned int CreateArchive(SipJson& request);
  unsigned int RunTool(time_t startTime);
  // The transfer's request to the HTI module, sent through the switch; the
  // status it came back with.
  unsigned int SendToHti(const std::string& bmcName, unsigned int timeout);
};

// The one module instance of the library, held as the host sees it.
extern CIExtensionModule* pModuleInstance;
