#include "cli/smart_run.h"

#include <fmt/format.h>

#include <chrono>
#include <thread>

#include "cli/console.h"
#include "cli/smart_display.h"
#include "engine/dfrg_exception.h"

namespace glidewell {

namespace {
constexpr auto kPollInterval = std::chrono::milliseconds(25);
}  // namespace

std::string SmartRunResult::describe() const {
  switch (end) {
    case SmartEnd::kTimeUp:
      return fmt::format("stopped after {:.1f} s as asked; the stop took {:.2f} s", seconds, stopSeconds);
    case SmartEnd::kInterrupted:
      return fmt::format("interrupted after {:.1f} s; the stop took {:.2f} s", seconds, stopSeconds);
    case SmartEnd::kEnded:
      break;
  }
  return fmt::format("the engine ended the run with error {} ({}){}{}", error, errorName(error),
                     errorMessage.empty() ? "" : ": ", errorMessage);
}

SmartRunResult runSmartDriver(SmartEngineHost& host, const std::string& installDir,
                              const std::vector<wchar_t>& letters, double seconds,
                              const std::function<std::string()>& extra) {
  using Clock = std::chrono::steady_clock;
  InterruptGuard interrupts;
  SmartObserver observer(host.registry(), installDir, letters);
  SmartDisplay display(stdout, isTerminal(stdout), terminalColumns(stdout));
  auto view = [&] {
    SmartView v = observer.read();
    if (extra) v.extra = extra();
    return v;
  };

  SmartRunResult result;
  Clock::time_point start = Clock::now();
  auto elapsedMs = [&] {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
  };
  host.start();
  for (;;) {
    display.update(elapsedMs(), view());
    if (!host.workerRunning()) {
      result.end = SmartEnd::kEnded;
      break;
    }
    if (interruptRequested()) {
      result.end = SmartEnd::kInterrupted;
      break;
    }
    if (seconds > 0 && static_cast<double>(elapsedMs()) >= seconds * 1000.0) {
      result.end = SmartEnd::kTimeUp;
      break;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  result.seconds = static_cast<double>(elapsedMs()) / 1000.0;
  display.interrupt();
  if (result.end != SmartEnd::kEnded) fmt::print("stopping the engine...\n");
  std::fflush(stdout);
  result.stopSeconds = host.stop();
  result.error = host.lastError(&result.errorMessage);
  display.finish(elapsedMs(), view(), result.describe());
  result.modeChanges = display.modeChanges();
  return result;
}

}  // namespace glidewell
