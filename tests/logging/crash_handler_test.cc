// The crash hook on POSIX: a fatal signal in a child process with a file
// appender configured leaves the report in the log, and the child still
// dies by its signal.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <regex>
#include <thread>

#include "log_test_util.h"
#include "logging/exception_report.h"
#include "platform/crash_handler.h"

namespace glidewell {
namespace {

using testing_log::readFile;
using testing_log::writeFile;

class CrashHandlerTest : public ::testing::Test {
 protected:
  CrashHandlerTest() {
    writeFile(dir_.file("config/logconfig.xml"),
              "<c><appender name=\"FileAppender\"><settings><filename value=\"" + log_ +
                  "\"/><multithreading value=\"true\"/></settings><layout name=\"SimpleLayout\"><settings>"
                  "<includeThread value=\"true\"/><includePriorities value=\"true\"/>"
                  "<includeProperties value=\"true\"/></settings></layout></appender></c>");
  }

  // Runs body in a child process and returns the signal that ended it (0
  // when it exited normally).
  int inChild(const std::function<void()>& body) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
      body();
      std::_Exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }

  void initialise() {
    initLogging(dir_.path());
    installCrashHandler(reportUnhandledException);
  }

  TempDir dir_;
  std::string log_ = dir_.file("crash.log");
};

uint64_t fieldValue(const std::string& text, const std::string& line) {
  std::smatch m;
  if (!std::regex_search(text, m, std::regex("\n" + line + ": (0x[0-9A-Fa-f]+|[0-9]+)\n"))) return ~0ull;
  return std::stoull(m[1].str(), nullptr, 0);
}

TEST_F(CrashHandlerTest, AReadOfAddress0x10LeavesTheFullReport) {
  int sig = inChild([this] {
    initialise();
    Logger scope("processFile");
    volatile uintptr_t where = 0x10;  // not a constant, so the compiler keeps the read
    volatile int* bad = reinterpret_cast<volatile int*>(where);
    int value = *bad;
    (void)value;
  });
  EXPECT_EQ(sig, SIGSEGV);
  std::string text = readFile(log_);
  EXPECT_NE(text.find("(MainThread)(Error) main.processFile.Unhandled Exception Occured: -> "
                      "Unhandled Exception Occured\r\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("(MainThread)(Alert) main.processFile.Unhandled Exception Occured: -> "
                      "An unhandled Exception occured\nExceptionRecord: 0x"),
            std::string::npos);
  for (const char* line : {"\n Code: 0xc0000005\n ExceptionType: EXCEPTION_ACCESS_VIOLATION\n"
                           " ExceptionFlag: Continuable\n NumberParameters: 2\n ExceptionInformation: 0x00000000\n"
                           "  Action: Read\n  Address: 0x00000010\nContext: 0x",
                           "\n Ebp: ", "\n Edi: ", "\n FloatingSaveArea: 0x", "\n  RegisterArea: ",
                           "\n SegDs: 0\n SegEs: 0\n SegFs: ", "\n ExtendedRegisters:  "}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(text.find(" Dr0:"), std::string::npos);  // debug registers are not available
  // The record's address is the faulting instruction, whose low half is Eip.
  uint64_t address = fieldValue(text, " Address");
  EXPECT_EQ(address & 0xFFFFFFFFu, fieldValue(text, " Eip"));
  EXPECT_EQ(text.substr(text.size() - 3), "\n\r\n");
}

TEST_F(CrashHandlerTest, ADivisionByZeroOnTheWorkerThread) {
  int sig = inChild([this] {
    initialise();
    std::thread worker([] {
      Logger root(Logger::kRoot, "runthread");
      setThreadName("WorkThread");
      Logger scope("defragFile");
      volatile int zero = 0;
      volatile int result = 100 / zero;
      (void)result;
    });
    worker.join();
  });
  EXPECT_EQ(sig, SIGFPE);
  std::string text = readFile(log_);
  EXPECT_NE(text.find("(WorkThread)(Alert) runthread.defragFile.Unhandled Exception Occured: -> "
                      "An unhandled Exception occured\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("\n Code: 0xc0000094\n ExceptionType: EXCEPTION_INT_DIVIDE_BY_ZERO\n"), std::string::npos);
  EXPECT_NE(text.find("\n NumberParameters: 0\n ExceptionInformation: 0x00000000\nContext: "), std::string::npos);
}

TEST_F(CrashHandlerTest, BeforeLoggingIsInitialisedNothingIsWrittenAndTheProcessStillEnds) {
  int sig = inChild([this] {
    LogManager* m = LogManager::instance();
    m->setGenericFactory(LogObjectFactory{createLogObject, destroyLogObject});
    m->loadConfig(widen(dir_.file("config/logconfig.xml")));
    installCrashHandler(reportUnhandledException);
    installCrashHandler(reportUnhandledException);  // installing again changes nothing
    raise(SIGBUS);
  });
  EXPECT_EQ(sig, SIGBUS);
  EXPECT_TRUE(std::filesystem::exists(log_));
  EXPECT_EQ(readFile(log_), "");
}

TEST_F(CrashHandlerTest, AWriteAndASignalSentByRaiseAreReportedToo) {
  EXPECT_EQ(SIGSEGV, inChild([this] {
    initialise();
    volatile uintptr_t where = 0x20;
    *reinterpret_cast<volatile int*>(where) = 1;
  }));
  EXPECT_NE(readFile(log_).find("  Action: Write\n  Address: 0x00000020\n"), std::string::npos);
  EXPECT_EQ(SIGILL, inChild([this] {
    initialise();
    raise(SIGILL);
  }));
  EXPECT_NE(readFile(log_).find(" ExceptionType: EXCEPTION_ILLEGAL_INSTRUCTION\n"), std::string::npos);
}

}  // namespace
}  // namespace glidewell
