// The crash hook on POSIX systems: a handler for the fatal signals that a
// fault raises. The report keeps the shape of the Windows one, built from
// what the signal gives:
//
// Exception record
//   Code      SIGSEGV -> 0xC0000005 access violation; SIGBUS -> 0x80000002
//             datatype misalignment (BUS_ADRALN), else 0xC0000006 in-page
//             error; SIGFPE -> integer divide by zero / overflow, or the
//             floating-point code of its si_code (FPE_FLTSUB: array bounds
//             exceeded); SIGILL -> privileged instruction (ILL_PRVOPC,
//             ILL_PRVREG), else illegal instruction.
//   Flags     0 (continuable), as Windows reports these faults.
//   Address   the instruction pointer of the faulting thread (si_addr when
//             there is no machine context).
//   Parameters, for access violations and in-page errors: [0] the access
//             kind from the page-fault error code of the context (bit 1
//             set: 1 write; bit 4 set: 8 instruction fetch; otherwise 0
//             read), [1] the fault address si_addr; in-page errors add [2]
//             the signal's si_code. Other codes carry no parameters.
// Context (x86_64; other machines report the record only, flags 0x10000)
//   Control   Ebp<-rbp, Eip<-rip, SegCs<-cs, EFlags<-eflags, Esp<-rsp,
//             SegSs<-ss (kept by recent kernels beside cs, fs and gs).
//   Integer   Edi<-rdi, Esi<-rsi, Ebx<-rbx, Edx<-rdx, Ecx<-rcx, Eax<-rax.
//   Segments  SegFs<-fs, SegGs<-gs; SegDs and SegEs are 0 (flat in 64-bit
//             mode and not saved).
//   Floating point, when the kernel saved the FPU state: ControlWord<-cwd,
//             StatusWord<-swd, TagWord<-ftw (abridged), ErrorOffset<-low
//             half of the FPU instruction pointer, ErrorSelector<-fop,
//             DataOffset<-low half of the FPU data pointer, DataSelector 0,
//             RegisterArea<-the 10 bytes of each of st0..st7, Cr0NpxState 0;
//             and ExtendedRegisters<-the 512-byte FXSAVE image itself, which
//             is what the x86 context holds there too.
//   Debug registers are not available to a process: that group is absent.
// Registers are 64 bits wide and the context's fields 32: the low halves
// are reported. The record's addresses are pointer-sized and reported in full.
//
// The report allocates and takes the logging locks, which a signal handler
// must not do in general; it is the last thing the process does, and an
// alarm ends it should the report itself hang (a fault inside the allocator
// or while a logging lock was held). A second fault during the report ends
// the process at once, because the default actions are restored first.
#include <signal.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "platform/crash_handler.h"

namespace glidewell {

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr unsigned kReportSeconds = 10;
constexpr size_t kAltStackSize = 64 * 1024;

std::atomic<CrashReportWriter> reportWriter{nullptr};
std::atomic<bool> reporting{false};
std::atomic<bool> altStackInstalled{false};
// The signal stack of the first thread that installs the hook, so that a
// stack overflow on that thread can still be reported.
alignas(16) char altStack[kAltStackSize];

uint32_t exceptionCode(int sig, int code) {
  switch (sig) {
    case SIGSEGV: return kExceptionAccessViolation;
    case SIGBUS: return code == BUS_ADRALN ? kExceptionDatatypeMisalignment : kExceptionInPageError;
    case SIGFPE:
      switch (code) {
        case FPE_INTDIV: return kExceptionIntDivideByZero;
        case FPE_INTOVF: return kExceptionIntOverflow;
        case FPE_FLTDIV: return kExceptionFltDivideByZero;
        case FPE_FLTOVF: return kExceptionFltOverflow;
        case FPE_FLTUND: return kExceptionFltUnderflow;
        case FPE_FLTRES: return kExceptionFltInexactResult;
        case FPE_FLTSUB: return kExceptionArrayBoundsExceeded;
        default: return kExceptionFltInvalidOperation;
      }
    case SIGILL: return code == ILL_PRVOPC || code == ILL_PRVREG ? kExceptionPrivInstruction : kExceptionIllegalInstruction;
    default: return 0;
  }
}

#if defined(__x86_64__)
constexpr uint64_t kPageFaultWrite = 0x2;
constexpr uint64_t kPageFaultFetch = 0x10;

uintptr_t accessKind(const ucontext_t* uc) {
  if (uc == nullptr) return 0;
  uint64_t err = static_cast<uint64_t>(uc->uc_mcontext.gregs[REG_ERR]);
  if (err & kPageFaultFetch) return 8;
  return (err & kPageFaultWrite) ? 1 : 0;
}

uintptr_t instructionPointer(const ucontext_t* uc) { return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]); }

void mapContext(const ucontext_t* uc, X86Context* x) {
  const greg_t* g = uc->uc_mcontext.gregs;
  auto low = [](greg_t v) { return static_cast<uint32_t>(static_cast<uint64_t>(v)); };
  uint64_t segments = static_cast<uint64_t>(g[REG_CSGSFS]);  // cs, gs, fs, ss: 16 bits each
  x->ContextFlags = kX86ContextControl | kX86ContextInteger | kX86ContextSegments;
  x->Ebp = low(g[REG_RBP]);
  x->Eip = low(g[REG_RIP]);
  x->SegCs = static_cast<uint32_t>(segments & 0xFFFF);
  x->EFlags = low(g[REG_EFL]);
  x->Esp = low(g[REG_RSP]);
  x->SegSs = static_cast<uint32_t>((segments >> 48) & 0xFFFF);
  x->Edi = low(g[REG_RDI]);
  x->Esi = low(g[REG_RSI]);
  x->Ebx = low(g[REG_RBX]);
  x->Edx = low(g[REG_RDX]);
  x->Ecx = low(g[REG_RCX]);
  x->Eax = low(g[REG_RAX]);
  x->SegGs = static_cast<uint32_t>((segments >> 16) & 0xFFFF);
  x->SegFs = static_cast<uint32_t>((segments >> 32) & 0xFFFF);
  const struct _libc_fpstate* fp = uc->uc_mcontext.fpregs;
  if (fp == nullptr) return;
  x->ContextFlags |= kX86ContextFloatingPoint | kX86ContextExtendedRegisters;
  X86FloatingSaveArea& f = x->FloatSave;
  f.ControlWord = fp->cwd;
  f.StatusWord = fp->swd;
  f.TagWord = fp->ftw;
  f.ErrorOffset = static_cast<uint32_t>(fp->rip);
  f.ErrorSelector = fp->fop;
  f.DataOffset = static_cast<uint32_t>(fp->rdp);
  for (int i = 0; i < 8; ++i) std::memcpy(f.RegisterArea + i * 10, &fp->_st[i], 10);
  static_assert(sizeof(struct _libc_fpstate) >= sizeof(x->ExtendedRegisters), "the FXSAVE image is 512 bytes");
  std::memcpy(x->ExtendedRegisters, fp, sizeof(x->ExtendedRegisters));
}
#else
uintptr_t accessKind(const ucontext_t*) { return 0; }
uintptr_t instructionPointer(const ucontext_t*) { return 0; }
void mapContext(const ucontext_t*, X86Context* x) { x->ContextFlags = kX86ContextFamily; }
#endif

void buildRecord(int sig, const siginfo_t* info, const ucontext_t* uc, X86ExceptionRecord* r) {
  std::memset(r, 0, sizeof(*r));
  r->ExceptionCode = exceptionCode(sig, info->si_code);
  r->ExceptionFlags = 0;
  uintptr_t faultAddress = reinterpret_cast<uintptr_t>(info->si_addr);
  uintptr_t ip = uc != nullptr ? instructionPointer(uc) : 0;
  r->ExceptionAddress = ip != 0 ? ip : faultAddress;
  if (r->ExceptionCode == kExceptionAccessViolation || r->ExceptionCode == kExceptionInPageError) {
    r->ExceptionInformation[0] = accessKind(uc);
    r->ExceptionInformation[1] = faultAddress;
    r->NumberParameters = 2;
    if (r->ExceptionCode == kExceptionInPageError) {
      r->ExceptionInformation[2] = static_cast<uintptr_t>(info->si_code);
      r->NumberParameters = 3;
    }
  }
}

void restoreDefaults() {
  for (int sig : kFatalSignals) ::signal(sig, SIG_DFL);
}

void onFatalSignal(int sig, siginfo_t* info, void* raw) {
  restoreDefaults();
  if (!reporting.exchange(true)) {
    ::signal(SIGALRM, SIG_DFL);
    ::alarm(kReportSeconds);
    const ucontext_t* uc = static_cast<const ucontext_t*>(raw);
    X86ExceptionRecord record;
    buildRecord(sig, info, uc, &record);
    X86Context context;
    std::memset(&context, 0, sizeof(context));
    if (uc != nullptr) {
      mapContext(uc, &context);
    } else {
      context.ContextFlags = kX86ContextFamily;
    }
    if (CrashReportWriter writer = reportWriter.load()) writer(&record, &context);
  }
  // Ends the process by the same signal: at once for one sent by raise or
  // kill, and by the fault again for one the instruction caused.
  ::raise(sig);
}

}  // namespace

void installCrashHandler(CrashReportWriter report) {
  reportWriter.store(report);
  // A thread that already has an alternate stack (a sanitizer's, say) keeps
  // it: replacing it would leave its owner freeing our static buffer.
  stack_t current;
  bool hasStack = ::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0;
  if (!hasStack && !altStackInstalled.exchange(true)) {
    stack_t ss;
    std::memset(&ss, 0, sizeof(ss));
    ss.ss_sp = altStack;
    ss.ss_size = sizeof(altStack);
    ::sigaltstack(&ss, nullptr);
  }
  struct sigaction action;
  std::memset(&action, 0, sizeof(action));
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int sig : kFatalSignals) ::sigaction(sig, &action, nullptr);
}

}  // namespace glidewell
