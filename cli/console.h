// What the host needs from the console it runs in: whether its output is a
// terminal (and how wide), and the user's request to stop (Ctrl-C, and
// SIGTERM on POSIX systems or the console's close on Windows). One
// implementation per system: cli/posix/console_posix.cc, cli/win32/console_win32.cc.
#ifndef GLIDEWELL_CLI_CONSOLE_H_
#define GLIDEWELL_CLI_CONSOLE_H_

#include <cstdio>

namespace glidewell {

// True when `out` is a terminal that understands the cursor movements the
// live displays use (on Windows, after switching them on).
bool isTerminal(std::FILE* out);

// The columns of the terminal `out` writes to, or 80 when it cannot tell.
int terminalColumns(std::FILE* out);

// While one of these lives, the first interrupt only raises a flag
// (interruptRequested()), so a run can stop cleanly and write its drives
// back; a second interrupt ends the process as usual. One at a time.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
};

bool interruptRequested();

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_CONSOLE_H_
