// The crash hook on Windows: the report is the process's top-level
// unhandled-exception filter.
//
// On the 32-bit build the system's EXCEPTION_RECORD and CONTEXT have exactly
// the layouts the report reads (checked below), and are reported as they
// are. On the 64-bit build (run under Wine for the tests) the record has the
// same shape with 64-bit pointer fields, which X86ExceptionRecord has there
// too; the 64-bit CONTEXT is mapped onto the x86 one, each register to the
// nearest name, by its low 32 bits:
//   Control   Ebp<-Rbp, Eip<-Rip, SegCs, EFlags, Esp<-Rsp, SegSs
//   Integer   Edi<-Rdi, Esi<-Rsi, Ebx<-Rbx, Edx<-Rdx, Ecx<-Rcx, Eax<-Rax
//   Segments  SegDs, SegEs, SegFs, SegGs
//   Debug     Dr0..Dr3, Dr6, Dr7
//   Floating point from the FXSAVE area (FltSave): ControlWord, StatusWord,
//             TagWord (abridged), ErrorOffset, ErrorSelector, DataOffset,
//             DataSelector, the 10 bytes of each x87 register, Cr0NpxState
//             0; ExtendedRegisters<-the 512-byte FXSAVE area itself.
// The x86 flags are the family bit plus the groups the 64-bit flags hold
// (extended registers whenever the floating-point group is there). The
// context's reported address is that of the mapped copy.
#include <windows.h>

#include <atomic>
#include <cstddef>
#include <cstring>

#include "platform/crash_handler.h"

namespace glidewell {

namespace {

std::atomic<CrashReportWriter> reportWriter{nullptr};

LONG writeReport(const X86ExceptionRecord* record, const X86Context* context) {
  CrashReportWriter writer = reportWriter.load();
  return writer != nullptr ? writer(record, context) : EXCEPTION_EXECUTE_HANDLER;
}

static_assert(sizeof(X86ExceptionRecord) == sizeof(EXCEPTION_RECORD), "EXCEPTION_RECORD layout");
static_assert(offsetof(X86ExceptionRecord, ExceptionRecord) == offsetof(EXCEPTION_RECORD, ExceptionRecord),
              "EXCEPTION_RECORD layout");
static_assert(offsetof(X86ExceptionRecord, ExceptionAddress) == offsetof(EXCEPTION_RECORD, ExceptionAddress),
              "EXCEPTION_RECORD layout");
static_assert(offsetof(X86ExceptionRecord, NumberParameters) == offsetof(EXCEPTION_RECORD, NumberParameters),
              "EXCEPTION_RECORD layout");
static_assert(offsetof(X86ExceptionRecord, ExceptionInformation) ==
                  offsetof(EXCEPTION_RECORD, ExceptionInformation),
              "EXCEPTION_RECORD layout");

#if defined(_M_IX86) || defined(__i386__)

static_assert(sizeof(CONTEXT) == sizeof(X86Context), "x86 CONTEXT layout");
static_assert(offsetof(CONTEXT, ExtendedRegisters) == offsetof(X86Context, ExtendedRegisters), "x86 CONTEXT layout");

LONG report(EXCEPTION_POINTERS* info) {
  return writeReport(reinterpret_cast<const X86ExceptionRecord*>(info->ExceptionRecord),
                                  reinterpret_cast<const X86Context*>(info->ContextRecord));
}

#else

constexpr DWORD kAmd64Control = 0x1, kAmd64Integer = 0x2, kAmd64Segments = 0x4, kAmd64Float = 0x8,
                kAmd64Debug = 0x10;

void mapContext(const CONTEXT& c, X86Context* x) {
  auto low = [](DWORD64 v) { return static_cast<uint32_t>(v); };
  x->ContextFlags = kX86ContextFamily;
  DWORD groups = c.ContextFlags;
  if (groups & kAmd64Control) {
    x->ContextFlags |= kX86ContextControl;
    x->Ebp = low(c.Rbp);
    x->Eip = low(c.Rip);
    x->SegCs = c.SegCs;
    x->EFlags = c.EFlags;
    x->Esp = low(c.Rsp);
    x->SegSs = c.SegSs;
  }
  if (groups & kAmd64Integer) {
    x->ContextFlags |= kX86ContextInteger;
    x->Edi = low(c.Rdi);
    x->Esi = low(c.Rsi);
    x->Ebx = low(c.Rbx);
    x->Edx = low(c.Rdx);
    x->Ecx = low(c.Rcx);
    x->Eax = low(c.Rax);
  }
  if (groups & kAmd64Segments) {
    x->ContextFlags |= kX86ContextSegments;
    x->SegDs = c.SegDs;
    x->SegEs = c.SegEs;
    x->SegFs = c.SegFs;
    x->SegGs = c.SegGs;
  }
  if (groups & kAmd64Debug) {
    x->ContextFlags |= kX86ContextDebugRegisters;
    x->Dr0 = low(c.Dr0);
    x->Dr1 = low(c.Dr1);
    x->Dr2 = low(c.Dr2);
    x->Dr3 = low(c.Dr3);
    x->Dr6 = low(c.Dr6);
    x->Dr7 = low(c.Dr7);
  }
  if (groups & kAmd64Float) {
    x->ContextFlags |= kX86ContextFloatingPoint | kX86ContextExtendedRegisters;
    const XMM_SAVE_AREA32& s = c.FltSave;
    X86FloatingSaveArea& f = x->FloatSave;
    f.ControlWord = s.ControlWord;
    f.StatusWord = s.StatusWord;
    f.TagWord = s.TagWord;
    f.ErrorOffset = s.ErrorOffset;
    f.ErrorSelector = s.ErrorSelector;
    f.DataOffset = s.DataOffset;
    f.DataSelector = s.DataSelector;
    for (int i = 0; i < 8; ++i) std::memcpy(f.RegisterArea + i * 10, &s.FloatRegisters[i], 10);
    static_assert(sizeof(XMM_SAVE_AREA32) == sizeof(x->ExtendedRegisters), "the FXSAVE area is 512 bytes");
    std::memcpy(x->ExtendedRegisters, &s, sizeof(x->ExtendedRegisters));
  }
}

LONG report(EXCEPTION_POINTERS* info) {
  X86Context context;
  std::memset(&context, 0, sizeof(context));
  if (info->ContextRecord != nullptr) mapContext(*info->ContextRecord, &context);
  return writeReport(reinterpret_cast<const X86ExceptionRecord*>(info->ExceptionRecord),
                                  info->ContextRecord != nullptr ? &context : nullptr);
}

#endif

LONG WINAPI unhandledExceptionFilter(EXCEPTION_POINTERS* info) {
  if (info == nullptr) return EXCEPTION_EXECUTE_HANDLER;
  return report(info);
}

}  // namespace

void installCrashHandler(CrashReportWriter report) {
  reportWriter.store(report);
  SetUnhandledExceptionFilter(unhandledExceptionFilter);
}

}  // namespace glidewell
