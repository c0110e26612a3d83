#include <io.h>
#include <windows.h>

#include <atomic>

#include "cli/console.h"

namespace glidewell {

namespace {

// ENABLE_VIRTUAL_TERMINAL_PROCESSING, which older SDK headers lack.
constexpr DWORD kVirtualTerminal = 0x0004;

std::atomic<int> interrupts{0};

HANDLE handleOf(std::FILE* out) { return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(out))); }

BOOL WINAPI onConsoleEvent(DWORD) {
  // The first Ctrl-C, Ctrl-Break or close asks the run to stop; a second one
  // goes to the default handler, which ends the process.
  return interrupts.fetch_add(1) == 0 ? TRUE : FALSE;
}

}  // namespace

bool isTerminal(std::FILE* out) {
  HANDLE h = handleOf(out);
  DWORD mode = 0;
  if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode)) return false;
  // The live displays move the cursor with VT sequences (Windows 10 and later).
  return (mode & kVirtualTerminal) != 0 || SetConsoleMode(h, mode | kVirtualTerminal) != 0;
}

int terminalColumns(std::FILE* out) {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (GetConsoleScreenBufferInfo(handleOf(out), &info)) return info.srWindow.Right - info.srWindow.Left + 1;
  return 80;
}

InterruptGuard::InterruptGuard() {
  interrupts = 0;
  SetConsoleCtrlHandler(&onConsoleEvent, TRUE);
}

InterruptGuard::~InterruptGuard() { SetConsoleCtrlHandler(&onConsoleEvent, FALSE); }

bool interruptRequested() { return interrupts.load() != 0; }

}  // namespace glidewell
