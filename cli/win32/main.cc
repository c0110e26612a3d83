// glidewell on Windows: analyses and defragments this machine's drives (the
// pass loop through glidewell.dll's exported functions, the smart driver
// through the engine object), and reads and changes the engine's settings and
// statistics in the registry. Drive images and the demo are Linux-only.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <exception>

#include "cli/commands.h"
#include "cli/registry_command_line.h"

using namespace glidewell;

namespace {

constexpr int kUsageStatus = 2;

const char* const kDirHelp =
    "Install directory: the engine's state files, log and logging configuration (default: %GLIDEWELL_HOME%, "
    "else %LOCALAPPDATA%\\Glidewell)";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Glidewell: analyses and defragments this machine's drives, and shows the engine's settings and "
               "statistics.",
               "glidewell");
  app.set_version_flag("--version", "glidewell 1.6 (engine 1.06m)");
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return fmt::format("glidewell: {} (see --help)\n", e.what());
  });

  AnalyzeOptions analyze;
  CLI::App* analyzeCmd = app.add_subcommand("analyze", "Measure one drive: files, fragmented files, free space");
  analyzeCmd->add_option("DRIVE", analyze.image, "The drive, like C:")->required();

  RunOptions run;
  CLI::App* runCmd = app.add_subcommand(
      "run", "Defragment drives; only the drives given are enabled for the run, the settings are put back after it");
  runCmd->add_option("DRIVE", run.images, "Drives, like C: D:")->required();
  runCmd->add_option("--mode", run.mode,
                     "1: one pass of the pass loop, through the exported functions; 0: the smart driver, through "
                     "the engine object, until the time is up or Ctrl-C")
      ->check(CLI::IsMember({0, 1}))
      ->capture_default_str();
  runCmd->add_option("--seconds", run.seconds, "Stop the run after this many seconds (0: let it end, or run until Ctrl-C)")
      ->check(CLI::NonNegativeNumber);
  runCmd->add_option("--dir", run.dir, kDirHelp);

  RegistryCommandLine registryCommands(app, kDirHelp);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int status = app.exit(e);
    return status == 0 ? 0 : kUsageStatus;
  }

  try {
    if (analyzeCmd->parsed()) return analyzeDriveCommand(analyze);
    if (runCmd->parsed()) return runDrivesCommand(run);
    return registryCommands.runIfParsed();
  } catch (const UsageError& e) {
    fmt::print(stderr, "glidewell: {}\n", e.what());
    return kUsageStatus;
  } catch (const std::exception& e) {
    fmt::print(stderr, "glidewell: {}\n", e.what());
    return 1;
  }
}
