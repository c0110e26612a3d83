// A crash seen from outside: the test runs a copy of its own program as a
// child that sets logging up in a fresh install directory and then faults;
// the parent checks how the child ended and what its log says.
#ifndef GLIDEWELL_TESTS_WINE_WIN32_CRASH_HARNESS_H_
#define GLIDEWELL_TESTS_WINE_WIN32_CRASH_HARNESS_H_

#include <windows.h>

#include <string>

struct CrashOutcome {
  bool ended = false;  // the child ended within 30 seconds
  DWORD exitCode = 0;
  std::string log;  // the child's log file, or a note that it is missing
};

// Parent side: writes <installDir>\config\logconfig.xml (one file appender
// with properties, to <installDir>crash.log), runs this program again with
// `arguments` (the child test's gtest filter and whatever it needs), waits,
// and collects the log; the files are removed afterwards.
CrashOutcome runCrashingChild(const std::wstring& installDir, const std::wstring& arguments);

// Child side: the install directory the parent chose, or empty when this
// process is no crashing child.
std::wstring crashChildDirectory();

// An access violation writing address 0x10.
void writeToAddress0x10();

// The report lines that an access violation writing 0x10 must leave in the
// log, together with the start banner; the ones missing, quoted, or "".
std::string missingReportLines(const std::string& log);

#endif  // GLIDEWELL_TESTS_WINE_WIN32_CRASH_HARNESS_H_
