// The Win32 crash hook with the logging library behind it: a fault on any
// thread of the process is written to the log as a report before the
// process ends with the fault's code.
#include <gtest/gtest.h>

#include "crash_harness.h"
#include "logging/log_setup.h"
#include "logging/exception_report.h"
#include "platform/crash_handler.h"
#include "platform/env.h"
#include "platform/sync.h"
#include "platform/text.h"

namespace glidewell {
namespace {

TEST(Win32CrashReport, AFaultOnAnyThreadIsReportedAndEndsTheProcess) {
  std::wstring dir = widen(testing::TempDir()) + L"glidewell-crash-" + std::to_wstring(::GetCurrentProcessId()) + L"\\";
  ::CreateDirectoryW(dir.c_str(), nullptr);
  CrashOutcome outcome = runCrashingChild(dir, L"--gtest_filter=Win32CrashChild.*");
  ::RemoveDirectoryW(dir.c_str());
  ASSERT_TRUE(outcome.ended) << "the crashed child did not end";
  EXPECT_EQ(0xC0000005u, outcome.exitCode);
  EXPECT_EQ("", missingReportLines(outcome.log)) << "missing from the log:\n" << outcome.log;
}

// The child's part of the test above; skipped in a normal run.
TEST(Win32CrashChild, FaultOnAWorkerThread) {
  std::wstring dir = crashChildDirectory();
  if (dir.empty()) GTEST_SKIP() << "runs only as the crashing child";
  Env::current()->setInstallDirectory(dir);
  installCrashHandler(reportUnhandledException);
  initLogging(dir);
  auto worker = Thread::start([] { writeToAddress0x10(); });
  worker->join();
  ADD_FAILURE() << "still alive after the access violation";
}

}  // namespace
}  // namespace glidewell
