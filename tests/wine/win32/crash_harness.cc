#include "crash_harness.h"

#include <cstdio>
#include <vector>

namespace {

const wchar_t kChildVariable[] = L"GLIDEWELL_CRASH_CHILD_DIR";

std::string readFile(const std::wstring& path) {
  FILE* f = _wfopen(path.c_str(), L"rb");
  if (f == nullptr) return "<no log file>";
  std::string text;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) text.append(buf, n);
  std::fclose(f);
  return text;
}

}  // namespace

CrashOutcome runCrashingChild(const std::wstring& installDir, const std::wstring& arguments) {
  CrashOutcome outcome;
  const std::wstring configDir = installDir + L"config";
  const std::wstring configFile = configDir + L"\\logconfig.xml";
  const std::wstring logPath = installDir + L"crash.log";
  ::CreateDirectoryW(configDir.c_str(), nullptr);
  FILE* f = _wfopen(configFile.c_str(), L"wb");
  if (f == nullptr) {
    outcome.log = "<cannot write the log configuration>";
    return outcome;
  }
  std::fprintf(f,
               "<logging>\n"
               "  <appender name=\"FileAppender\">\n"
               "    <settings><filename value=\"%ls\"/><multithreading value=\"true\"/></settings>\n"
               "    <layout name=\"SimpleLayout\"><settings><includeProperties value=\"true\"/></settings></layout>\n"
               "  </appender>\n"
               "</logging>\n",
               logPath.c_str());
  std::fclose(f);

  wchar_t self[MAX_PATH + 1];
  ::GetModuleFileNameW(nullptr, self, MAX_PATH + 1);
  std::wstring command = L"\"" + std::wstring(self) + L"\" " + arguments + L" --gtest_catch_exceptions=0";
  std::vector<wchar_t> line(command.begin(), command.end());
  line.push_back(L'\0');
  // The variable is inherited by the child only.
  ::SetEnvironmentVariableW(kChildVariable, installDir.c_str());
  STARTUPINFOW si{};
  si.cb = sizeof(si);
  PROCESS_INFORMATION pi{};
  BOOL started = ::CreateProcessW(self, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
  ::SetEnvironmentVariableW(kChildVariable, nullptr);
  if (started) {
    outcome.ended = ::WaitForSingleObject(pi.hProcess, 30000) == WAIT_OBJECT_0;
    if (!outcome.ended) ::TerminateProcess(pi.hProcess, 1);
    ::GetExitCodeProcess(pi.hProcess, &outcome.exitCode);
    ::CloseHandle(pi.hThread);
    ::CloseHandle(pi.hProcess);
    outcome.log = readFile(logPath);
  } else {
    outcome.log = "<the child could not be started>";
  }
  ::DeleteFileW(logPath.c_str());
  ::DeleteFileW(configFile.c_str());
  ::RemoveDirectoryW(configDir.c_str());
  return outcome;
}

std::wstring crashChildDirectory() {
  wchar_t dir[MAX_PATH + 1];
  DWORD n = ::GetEnvironmentVariableW(kChildVariable, dir, MAX_PATH + 1);
  return n > 0 && n <= MAX_PATH ? std::wstring(dir, n) : std::wstring();
}

void writeToAddress0x10() {
  volatile uintptr_t address = 0x10;
  *reinterpret_cast<volatile int*>(address) = 1;
}

std::string missingReportLines(const std::string& log) {
  std::string missing;
  for (const char* expected : {"main: -> Log started", "Version: 1.06m", "Unhandled Exception Occured",
                               "An unhandled Exception occured", "Code: 0xc0000005",
                               "ExceptionType: EXCEPTION_ACCESS_VIOLATION", "ExceptionFlag: Continuable",
                               "Action: Write", "Address: 0x00000010", "Context: 0x"}) {
    if (log.find(expected) == std::string::npos) missing += std::string(" \"") + expected + "\"";
  }
  return missing;
}
