// The unhandled-exception report: when a thread of the process raises a fault
// that nothing handles, the exception record and the processor context are
// written to the log as one message with two property trees, before the
// process ends. platform/crash_handler.h installs the hook that calls
// reportUnhandledException (handed to it as its report writer) on each system.
//
// The report's input is described by the published Win32 layouts of a 32-bit
// x86 process (platform/exception_layouts.h), so that the same report is built
// on every system and can be tested anywhere.
#ifndef GLIDEWELL_LOGGING_EXCEPTION_REPORT_H_
#define GLIDEWELL_LOGGING_EXCEPTION_REPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "logging/logger.h"
#include "platform/exception_layouts.h"

namespace glidewell {

// The name of a Win32 exception code ("EXCEPTION_ACCESS_VIOLATION"), or
// "Unknown".
std::string exceptionTypeName(uint32_t code);

// The trees of the report. Each tree's value is the address of the structure
// it describes.
LogProperty exceptionRecordProperty(const X86ExceptionRecord& record);
LogProperty contextProperty(const X86Context& context);
LogProperty floatingSaveAreaProperty(const X86FloatingSaveArea& area);
LogProperty exceptionTypeProperty(uint32_t code);
LogProperty exceptionFlagProperty(uint32_t flags);
// " 0a ff 00": one space and two lower-case digits per byte.
LogProperty byteDumpProperty(const std::string& name, const uint8_t* bytes, size_t count);

// The report itself, the body of the unhandled-exception filter. Before
// logging is initialised it writes nothing. Always returns 1 ("execute the
// handler": the process ends without the system's error dialog). Runs on
// the failing thread; its logger's parent is that thread's current logger.
long reportUnhandledException(const X86ExceptionRecord* record, const X86Context* context);

}  // namespace glidewell

#endif  // GLIDEWELL_LOGGING_EXCEPTION_REPORT_H_
