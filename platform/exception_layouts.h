// The published Win32 layouts of an exception as a 32-bit x86 process sees
// it, defined portably: the crash hooks of every system fill them in and the
// unhandled-exception report (logging/exception_report.h) reads them.
// - X86ExceptionRecord is EXCEPTION_RECORD. Its pointer fields are
//   pointer-sized, so on a 32-bit build it is exactly the 32-bit layout (and
//   on a 64-bit Windows build exactly the 64-bit EXCEPTION_RECORD), and the
//   addresses of a 64-bit process are reported in full.
// - X86FloatingSaveArea and X86Context are FLOATING_SAVE_AREA and the x86
//   CONTEXT, 112 and 716 bytes, 32-bit registers throughout. A 64-bit
//   machine's registers are mapped onto them by the crash hook of that system.
#ifndef GLIDEWELL_PLATFORM_EXCEPTION_LAYOUTS_H_
#define GLIDEWELL_PLATFORM_EXCEPTION_LAYOUTS_H_

#include <cstddef>
#include <cstdint>

namespace glidewell {

constexpr uint32_t kExceptionMaximumParameters = 15;

struct X86ExceptionRecord {
  uint32_t ExceptionCode;
  uint32_t ExceptionFlags;
  const X86ExceptionRecord* ExceptionRecord;  // a nested record, or null
  uintptr_t ExceptionAddress;
  uint32_t NumberParameters;
  uintptr_t ExceptionInformation[kExceptionMaximumParameters];
};

struct X86FloatingSaveArea {
  uint32_t ControlWord;
  uint32_t StatusWord;
  uint32_t TagWord;
  uint32_t ErrorOffset;
  uint32_t ErrorSelector;
  uint32_t DataOffset;
  uint32_t DataSelector;
  uint8_t RegisterArea[80];
  uint32_t Cr0NpxState;
};
static_assert(sizeof(X86FloatingSaveArea) == 112, "FLOATING_SAVE_AREA is 112 bytes");

struct X86Context {
  uint32_t ContextFlags;
  uint32_t Dr0, Dr1, Dr2, Dr3, Dr6, Dr7;
  X86FloatingSaveArea FloatSave;
  uint32_t SegGs, SegFs, SegEs, SegDs;
  uint32_t Edi, Esi, Ebx, Edx, Ecx, Eax;
  uint32_t Ebp, Eip, SegCs, EFlags, Esp, SegSs;
  uint8_t ExtendedRegisters[512];  // the FXSAVE image
};
static_assert(sizeof(X86Context) == 716, "the x86 CONTEXT is 716 bytes");
static_assert(offsetof(X86Context, FloatSave) == 28 && offsetof(X86Context, SegGs) == 140 &&
                  offsetof(X86Context, Ebp) == 180 && offsetof(X86Context, ExtendedRegisters) == 204,
              "x86 CONTEXT field offsets");
static_assert(sizeof(void*) != 4 || sizeof(X86ExceptionRecord) == 80, "EXCEPTION_RECORD is 80 bytes on x86");

// The context flag groups (each includes the x86 family bit 0x10000).
enum : uint32_t {
  kX86ContextFamily = 0x10000,
  kX86ContextControl = 0x10001,
  kX86ContextInteger = 0x10002,
  kX86ContextSegments = 0x10004,
  kX86ContextFloatingPoint = 0x10008,
  kX86ContextDebugRegisters = 0x10010,
  kX86ContextExtendedRegisters = 0x10020,
};

// Exception codes the hooks produce.
enum : uint32_t {
  kExceptionAccessViolation = 0xC0000005u,
  kExceptionInPageError = 0xC0000006u,
  kExceptionIllegalInstruction = 0xC000001Du,
  kExceptionArrayBoundsExceeded = 0xC000008Cu,
  kExceptionFltDenormalOperand = 0xC000008Du,
  kExceptionFltDivideByZero = 0xC000008Eu,
  kExceptionFltInexactResult = 0xC000008Fu,
  kExceptionFltInvalidOperation = 0xC0000090u,
  kExceptionFltOverflow = 0xC0000091u,
  kExceptionFltUnderflow = 0xC0000093u,
  kExceptionIntDivideByZero = 0xC0000094u,
  kExceptionIntOverflow = 0xC0000095u,
  kExceptionPrivInstruction = 0xC0000096u,
  kExceptionStackOverflow = 0xC00000FDu,
  kExceptionDatatypeMisalignment = 0x80000002u,
  kExceptionBreakpoint = 0x80000003u,
};

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_EXCEPTION_LAYOUTS_H_
