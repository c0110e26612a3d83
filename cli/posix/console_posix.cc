#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>

#include "cli/console.h"

namespace glidewell {

namespace {

volatile std::sig_atomic_t interrupted = 0;
struct sigaction oldInt = {};
struct sigaction oldTerm = {};

void onInterrupt(int signal) {
  if (interrupted) {
    // Asked twice: the user does not want to wait for the engine.
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    return;
  }
  interrupted = 1;
}

}  // namespace

bool isTerminal(std::FILE* out) { return ::isatty(::fileno(out)) == 1; }

int terminalColumns(std::FILE* out) {
  struct winsize ws = {};
  if (::ioctl(::fileno(out), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
  return 80;
}

InterruptGuard::InterruptGuard() {
  interrupted = 0;
  struct sigaction sa = {};
  sa.sa_handler = &onInterrupt;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, &oldInt);
  sigaction(SIGTERM, &sa, &oldTerm);
}

InterruptGuard::~InterruptGuard() {
  sigaction(SIGINT, &oldInt, nullptr);
  sigaction(SIGTERM, &oldTerm, nullptr);
}

bool interruptRequested() { return interrupted != 0; }

}  // namespace glidewell
