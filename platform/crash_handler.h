// The crash hook: the process's last-chance handler for faults that nothing
// else handles. It hands the fault, as the Win32 layouts of
// platform/exception_layouts.h, to the report writer it was installed with
// (the engine's is reportUnhandledException, which writes the report to the
// log) and lets the process end.
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

#include "platform/exception_layouts.h"

namespace glidewell {

// Writes the report of one fault; runs on the failing thread. Returns what
// the Windows filter returns (1: the process ends without the system's
// error dialog).
using CrashReportWriter = long (*)(const X86ExceptionRecord* record, const X86Context* context);

// Installs (or installs again) the hook with its report writer. Safe to call
// from any thread and any number of times; dfrg_initialize calls it and the
// defrag thread calls it again when it starts.
void installCrashHandler(CrashReportWriter report);

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_CRASH_HANDLER_H_
