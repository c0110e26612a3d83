#include "logging/exception_report.h"

#include <cinttypes>
#include <cstdio>

#include "logging/log_setup.h"

namespace glidewell {

namespace {

// A record chain longer than this is taken as corrupt (a loop, say) and cut.
constexpr int kMaxNestedRecords = 16;

// "0x" and eight or more upper-case digits: the value's full width on a
// 64-bit process, exactly eight digits for a 32-bit address.
std::string addressForm(uint64_t value) {
  char buf[24];
  std::snprintf(buf, sizeof(buf), "0x%08" PRIX64, value);
  return buf;
}
template <typename T>
std::string addressOf(const T* p) {
  return addressForm(reinterpret_cast<uintptr_t>(p));
}

// "0x" and eight or more lower-case digits (0xc0000005).
std::string wordForm(uint64_t value) {
  char buf[24];
  std::snprintf(buf, sizeof(buf), "0x%08" PRIx64, value);
  return buf;
}

std::string decimalForm(uint32_t value) { return std::to_string(value); }

struct CodeName {
  uint32_t code;
  const char* name;
};
const CodeName kCodeNames[] = {
    {0xC0000005u, "EXCEPTION_ACCESS_VIOLATION"},
    {0xC000008Cu, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
    {0x80000003u, "EXCEPTION_BREAKPOINT"},
    {0x80000002u, "EXCEPTION_DATATYPE_MISALIGNMENT"},
    {0xC000008Du, "EXCEPTION_FLT_DENORMAL_OPERAND"},
    {0xC000008Eu, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
    {0xC000008Fu, "EXCEPTION_FLT_INEXACT_RESULT"},
    {0xC0000090u, "EXCEPTION_FLT_INVALID_OPERATION"},
    {0xC0000091u, "EXCEPTION_FLT_OVERFLOW"},
    {0xC0000092u, "EXCEPTION_FLT_STACK_CHECK"},
    {0xC0000093u, "EXCEPTION_FLT_UNDERFLOW"},
    {0xC000001Du, "EXCEPTION_ILLEGAL_INSTRUCTION"},
    {0xC0000006u, "EXCEPTION_IN_PAGE_ERROR"},
    {0xC0000094u, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
    {0xC0000095u, "EXCEPTION_INT_OVERFLOW"},
    {0xC0000026u, "EXCEPTION_INVALID_DISPOSITION"},
    {0xC0000025u, "EXCEPTION_NONCONTINUABLE_EXCEPT"},  // the report has always cut this one short
    {0xC0000096u, "EXCEPTION_PRIV_INSTRUCTION"},
    {0x80000004u, "EXCEPTION_SINGLE_STEP"},
    {0xC00000FDu, "EXCEPTION_STACK_OVERFLOW"},
};

LogProperty recordTree(const X86ExceptionRecord& r, int nesting) {
  LogProperty tree("ExceptionRecord", addressOf(&r));
  tree << LogProperty("Address", addressForm(r.ExceptionAddress)) << LogProperty("Code", wordForm(r.ExceptionCode))
       << exceptionTypeProperty(r.ExceptionCode) << exceptionFlagProperty(r.ExceptionFlags)
       << LogProperty("NumberParameters", decimalForm(r.NumberParameters));
  // The record holds at most 15 parameters, whatever its count claims.
  uint32_t count = r.NumberParameters < kExceptionMaximumParameters ? r.NumberParameters : kExceptionMaximumParameters;
  LogProperty information("ExceptionInformation", addressForm(r.ExceptionInformation[0]));
  if (r.ExceptionCode == kExceptionAccessViolation) {
    uintptr_t access = r.ExceptionInformation[0];
    information << LogProperty("Action", access == 0 ? "Read" : access == 1 ? "Write" : "Unknown")
                << LogProperty("Address", wordForm(r.ExceptionInformation[1]));
  } else {
    for (uint32_t i = 0; i < count; ++i) {
      information << LogProperty("Information " + std::to_string(i), wordForm(r.ExceptionInformation[i]));
    }
  }
  tree << information;
  if (r.ExceptionRecord != nullptr && nesting < kMaxNestedRecords) tree << recordTree(*r.ExceptionRecord, nesting + 1);
  return tree;
}

void addDecimal(LogProperty* tree, const char* name, uint32_t value) { *tree << LogProperty(name, decimalForm(value)); }

}  // namespace

std::string exceptionTypeName(uint32_t code) {
  for (const CodeName& entry : kCodeNames) {
    if (entry.code == code) return entry.name;
  }
  return "Unknown";
}

LogProperty exceptionTypeProperty(uint32_t code) { return LogProperty("ExceptionType", exceptionTypeName(code)); }

LogProperty exceptionFlagProperty(uint32_t flags) {
  return LogProperty("ExceptionFlag", flags == 0 ? "Continuable" : flags == 1 ? "NonContinuable" : "Unknown");
}

LogProperty byteDumpProperty(const std::string& name, const uint8_t* bytes, size_t count) {
  std::string text;
  text.reserve(count * 3);
  char buf[4];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(buf, sizeof(buf), " %02x", unsigned{bytes[i]});
    text += buf;
  }
  return LogProperty(name, text);
}

LogProperty exceptionRecordProperty(const X86ExceptionRecord& record) { return recordTree(record, 0); }

LogProperty floatingSaveAreaProperty(const X86FloatingSaveArea& a) {
  LogProperty tree("FloatingSaveArea", addressOf(&a));
  tree << LogProperty("ControlWord", wordForm(a.ControlWord)) << LogProperty("StatusWord", wordForm(a.StatusWord))
       << LogProperty("TagWord", wordForm(a.TagWord)) << LogProperty("ErrorOffset", wordForm(a.ErrorOffset))
       << LogProperty("ErrorSelector", wordForm(a.ErrorSelector)) << LogProperty("DataOffset", wordForm(a.DataOffset))
       << LogProperty("DataSelector", wordForm(a.DataSelector))
       << byteDumpProperty("RegisterArea", a.RegisterArea, sizeof(a.RegisterArea))
       << LogProperty("Cr0NpxState", decimalForm(a.Cr0NpxState));
  return tree;
}

LogProperty contextProperty(const X86Context& x) {
  LogProperty tree("Context", addressOf(&x));
  auto has = [&x](uint32_t group) { return (x.ContextFlags & group) == group; };
  if (has(kX86ContextControl)) {
    addDecimal(&tree, "Ebp", x.Ebp);
    addDecimal(&tree, "Eip", x.Eip);
    addDecimal(&tree, "SegCs", x.SegCs);
    addDecimal(&tree, "EFlags", x.EFlags);
    addDecimal(&tree, "Esp", x.Esp);
    addDecimal(&tree, "SegSs", x.SegSs);
  }
  if (has(kX86ContextInteger)) {
    addDecimal(&tree, "Edi", x.Edi);
    addDecimal(&tree, "Esi", x.Esi);
    addDecimal(&tree, "Ebx", x.Ebx);
    addDecimal(&tree, "Edx", x.Edx);
    addDecimal(&tree, "Ecx", x.Ecx);
    addDecimal(&tree, "Eax", x.Eax);
  }
  if (has(kX86ContextFloatingPoint)) tree << floatingSaveAreaProperty(x.FloatSave);
  if (has(kX86ContextSegments)) {
    addDecimal(&tree, "SegDs", x.SegDs);
    addDecimal(&tree, "SegEs", x.SegEs);
    addDecimal(&tree, "SegFs", x.SegFs);
    addDecimal(&tree, "SegGs", x.SegGs);
  }
  if (has(kX86ContextDebugRegisters)) {
    addDecimal(&tree, "Dr0", x.Dr0);
    addDecimal(&tree, "Dr1", x.Dr1);
    addDecimal(&tree, "Dr2", x.Dr2);
    addDecimal(&tree, "Dr3", x.Dr3);
    addDecimal(&tree, "Dr6", x.Dr6);
    addDecimal(&tree, "Dr7", x.Dr7);
  }
  if (has(kX86ContextExtendedRegisters)) {
    tree << byteDumpProperty("ExtendedRegisters", x.ExtendedRegisters, sizeof(x.ExtendedRegisters));
  }
  return tree;
}

long reportUnhandledException(const X86ExceptionRecord* record, const X86Context* context) {
  if (!loggingInitialised()) return 1;
  Logger log("Unhandled Exception Occured");
  log.log(kLogError) << "Unhandled Exception Occured";
  LogRecord report = log.log(kLogAlert);
  report << "An unhandled Exception occured";
  if (record != nullptr) report << exceptionRecordProperty(*record);
  if (context != nullptr) report << contextProperty(*context);
  return 1;
}

}  // namespace glidewell
