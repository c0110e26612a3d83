#include "cli/registry_command_line.h"

namespace glidewell {

RegistryCommandLine::RegistryCommandLine(CLI::App& app, const std::string& dirHelp) {
  configCmd_ = app.add_subcommand("config", "Read or change the engine's settings");
  configCmd_->require_subcommand(1);
  getCmd_ = configCmd_->add_subcommand("get", "Print one setting (NAME like MaxClusterMoveCount or C:/enabled)");
  getCmd_->add_option("NAME", config_.name, "The setting")->required();
  getCmd_->add_option("--dir", config_.dir, dirHelp);
  setCmd_ = configCmd_->add_subcommand("set", "Store one setting (numbers; text for dumpPath and X:/Name)");
  setCmd_->add_option("NAME", config_.name, "The setting")->required();
  setCmd_->add_option("VALUE", config_.value, "The value")->required();
  setCmd_->add_option("--dir", config_.dir, dirHelp);
  CLI::App* listCmd = configCmd_->add_subcommand("list", "Print every setting");
  listCmd->add_option("--dir", config_.dir, dirHelp);

  statsCmd_ = app.add_subcommand(
      "stats", "Print the run, daily and all-time statistics, the engine status and the volume modes");
  statsCmd_->add_option("--dir", stats_.dir, dirHelp);
}

int RegistryCommandLine::runIfParsed() {
  if (configCmd_->parsed()) {
    config_.action = getCmd_->parsed() ? "get" : setCmd_->parsed() ? "set" : "list";
    return configCommand(config_);
  }
  if (statsCmd_->parsed()) return statsCommand(stats_);
  return -1;
}

}  // namespace glidewell
