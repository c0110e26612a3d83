// The crash hook: the process's last-chance handler for faults that nothing
// else handles. It writes the unhandled-exception report of
// logging/exception_report.h to the log (once logging is initialised) and
// lets the process end.
//
// Windows: the report is the process's top-level unhandled-exception filter
// (SetUnhandledExceptionFilter); it returns 1, so the process ends with the
// exception code as its exit status and without the system's error dialog.
// POSIX: SIGSEGV, SIGBUS, SIGFPE and SIGILL are caught; the report is built
// from the signal's information and machine context, then the signal is
// raised again with its default action, so the process ends as it would
// have without the hook.
#ifndef GLIDEWELL_PLATFORM_CRASH_HANDLER_H_
#define GLIDEWELL_PLATFORM_CRASH_HANDLER_H_

namespace glidewell {

// Installs (or installs again) the hook. Safe to call from any thread and
// any number of times; dfrg_initialize calls it and the defrag thread calls
// it again when it starts.
void installCrashHandler();

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_CRASH_HANDLER_H_
