// glidewell: the command-line host of the Glidewell engine on Linux. It makes
// and measures simulated drive images, runs the engine on them through the
// ten exported functions, and reads and writes the engine's settings and
// statistics in the registry database of an install directory.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <exception>

#include "cli/commands.h"
#include "cli/registry_command_line.h"

using namespace glidewell;

namespace {

constexpr int kUsageStatus = 2;

void addAgingOptions(CLI::App* command, AgingChoice* aging) {
  command->add_option("--seed", aging->seed, "Seed of the aging generator (same seed, same volume)")
      ->capture_default_str();
  command->add_option("--clusters", aging->clusters, "Size of the volume in 4 KiB clusters")
      ->check(CLI::Range(uint64_t{64}, uint64_t{1} << 31))
      ->capture_default_str();
  command->add_option("--fill", aging->fill, "Share of the volume in use at the end, 0 to 0.98")
      ->check(CLI::Range(0.0, 0.98))
      ->capture_default_str();
  command->add_option("--churn", aging->churn, "Rounds of deletes, appends, truncates and creates")
      ->check(CLI::Range(0, 1000))
      ->capture_default_str();
}

std::string dirHelp() {
  return "Install directory (default: $GLIDEWELL_HOME, else ~/.glidewell/)";
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Glidewell: runs the defragmentation engine on simulated NTFS drive images through its exported "
               "functions, and shows what it did.\nWithout a command, runs the demo.",
               "glidewell");
  app.set_version_flag("--version", "glidewell 1.6 (engine 1.06m)");
  app.require_subcommand(0, 1);
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return fmt::format("glidewell: {} (see --help)\n", e.what());
  });

  DemoOptions demo;
  if (argc > 0 && argv[0] != nullptr) demo.program = argv[0];
  demo.aging.seed = 7;
  demo.aging.clusters = 1 << 16;
  CLI::App* demoCmd = app.add_subcommand(
      "demo", "Age a volume, run one pass with a progress bar, print the before/after table and draw cluster maps");
  addAgingOptions(demoCmd, &demo.aging);
  demoCmd->add_option("--dir", demo.dir, "Install directory to use (default: a new temporary one, kept)");

  AnalyzeOptions analyze;
  CLI::App* analyzeCmd = app.add_subcommand("analyze", "Measure one drive image");
  analyzeCmd->add_option("IMAGE", analyze.image, "The drive image (.vdf), or an NTFS image or block device")->required();
  analyzeCmd->add_option("--png", analyze.png, "Also draw its cluster map into this PNG file");

  AgeOptions age;
  std::string ageLetter = "C";
  CLI::App* ageCmd = app.add_subcommand("age", "Make a drive image of an aged, fragmented volume");
  ageCmd->add_option("OUT", age.out, "The image file to write")->required();
  addAgingOptions(ageCmd, &age.aging);
  ageCmd->add_option("--files", age.aging.files, "At most this many files (larger files instead)")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  ageCmd->add_option("--from", age.aging.from, "Take the tree and file sizes from this real directory")
      ->check(CLI::ExistingDirectory);
  ageCmd->add_option("--letter", ageLetter, "Drive letter recorded in the image")->capture_default_str();
  ageCmd->add_option("--label", age.label, "Volume label")->capture_default_str();

  RunOptions run;
  CLI::App* runCmd = app.add_subcommand(
      "run", "Run the engine over images (they become drives C:, D:, ...); the originals are replaced only after a "
             "good run");
  runCmd->add_option("IMAGE", run.images, "Drive images (.vdf), or NTFS images or block devices (defragmented in place)")->required();
  runCmd->add_option("--mode", run.mode,
                     "1: one pass of the pass loop, through the exported functions; 0: the smart driver, through "
                     "the engine object, until the time is up or Ctrl-C")
      ->check(CLI::IsMember({0, 1}))
      ->capture_default_str();
  runCmd->add_option("--seconds", run.seconds, "Stop the run after this many seconds (0: let it end, or run until Ctrl-C)")
      ->check(CLI::NonNegativeNumber);
  runCmd->add_option("--activity", run.activity,
                     "Mode 0: users create, extend, truncate, rename and delete files at about RATE changes a second")
      ->check(CLI::NonNegativeNumber);
  runCmd->add_option("--seed", run.seed, "Mode 0: seed of the user activity")->capture_default_str();
  runCmd->add_option("--dir", run.dir, dirHelp());
  runCmd->add_option("--maps", run.maps, "Draw before/after cluster maps of each drive into this directory");

  RegistryCommandLine registryCommands(app, dirHelp());

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int status = app.exit(e);
    return status == 0 ? 0 : kUsageStatus;
  }

  try {
    if (analyzeCmd->parsed()) return analyzeCommand(analyze);
    if (ageCmd->parsed()) {
      if (ageLetter.size() != 1) throw UsageError("--letter must be one drive letter from A to Z");
      age.letter = ageLetter[0];
      return ageCommand(age);
    }
    if (runCmd->parsed()) return runCommand(run);
    int status = registryCommands.runIfParsed();
    if (status >= 0) return status;
    if (!demoCmd->parsed()) fmt::print("No command given: running the demo (glidewell --help lists the commands).\n");
    return demoCommand(demo);
  } catch (const UsageError& e) {
    fmt::print(stderr, "glidewell: {}\n", e.what());
    return kUsageStatus;
  } catch (const std::exception& e) {
    fmt::print(stderr, "glidewell: {}\n", e.what());
    return 1;
  }
}
