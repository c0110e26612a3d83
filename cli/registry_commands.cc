// config and stats: the settings and the statistics in the registry database
// of an install directory.
#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/registry_access.h"
#include "cli/report_table.h"
#include "cli/volume_modes.h"
#include "platform/env.h"
#include "platform/text.h"

namespace glidewell {

namespace {

std::string keyOf(const SettingName& name) {
  return HostRegistry::userKey(name.drive.empty() ? "settings" : "settings\\" + name.drive);
}

// "Drive Map" reads better with its letters.
std::string showSetting(const std::wstring& name, const RegistryValue& value) {
  std::string text = formatValue(value);
  if (foldRegistryName(name) == foldRegistryName(L"Drive Map") && value.type == REG_DWORD && value.data.size() == 4) {
    uint32_t mask = std::stoul(text);
    std::string letters;
    for (int i = 0; i < 26; ++i) {
      if ((mask >> i) & 1) letters += std::string(letters.empty() ? "" : " ") + char('A' + i) + ":";
    }
    if (!letters.empty()) text += " (" + letters + ")";
  }
  return text;
}

int configList(HostRegistry& registry) {
  fmt::print("settings in {}, HKEY_CURRENT_USER\\{}\n", registry.path(), HostRegistry::userKey("settings"));
  TextTable table({"name", "type", "value"});
  table.alignLeft(1);
  table.alignLeft(2);
  std::string settingsKey = HostRegistry::userKey("settings");
  std::vector<std::wstring> stored = registry.values(settingsKey);
  for (const std::wstring& name : stored) {
    if (auto v = registry.get(settingsKey, name)) table.addRow({narrow(name), typeName(v->type), showSetting(name, *v)});
  }
  for (const SettingName& known : knownSettings()) {
    bool present = false;
    for (const std::wstring& name : stored) present = present || foldRegistryName(name) == foldRegistryName(known.value);
    if (!present && known.defaultText) {
      table.addRow({known.display(), "default", narrow(*known.defaultText)});
    }
  }
  for (const std::string& drive : registry.subkeys(settingsKey)) {
    std::string key = settingsKey + "\\" + drive;
    for (const std::wstring& name : registry.values(key)) {
      if (auto v = registry.get(key, name)) table.addRow({drive + "/" + narrow(name), typeName(v->type), formatValue(*v)});
    }
  }
  fmt::print("{}", table.render());
  return 0;
}

// The smart driver's volume modes, kept below HKEY_LOCAL_MACHINE.
void printVolumeModes(HostRegistry& registry) {
  std::vector<StoredVolumeMode> modes = readVolumeModes(registry);
  fmt::print("\nvolume modes in HKEY_LOCAL_MACHINE\\{}:{}\n", HostRegistry::userKey(""), modes.empty() ? " none" : "");
  uint64_t now = Env::current()->fileTimeNow();
  for (const StoredVolumeMode& m : modes) {
    std::string mode = m.mode ? modeLabel(*m.mode, -1) : "scan (the stored value is no number)";
    std::string age = m.setAt ? "set " + describeAge(fileTimeMsBetween(*m.setAt, now)) + " ago" : "time unknown";
    fmt::print("  {}: {}, {}\n", narrow(std::wstring(1, m.letter)), mode, age);
  }
}

}  // namespace

int configCommand(const ConfigOptions& o) {
  std::string dir = resolveInstallDirectory(o.dir);
  if (o.action == "list") {
    auto registry = HostRegistry::open(dir, false);
    return configList(*registry);
  }
  SettingName name = parseSettingName(o.name);
  if (o.action == "set") {
    RegistryValue value = parseSettingValue(name, o.value);
    auto registry = HostRegistry::open(dir, true);
    registry->set(keyOf(name), name.value, value);
    fmt::print("{} = {}\n", name.display(), formatValue(value));
    return 0;
  }
  auto registry = HostRegistry::open(dir, false);
  if (auto v = registry->get(keyOf(name), name.value)) {
    fmt::print("{}\n", showSetting(name.value, *v));
    return 0;
  }
  if (name.defaultText) {
    fmt::print("{}\n", narrow(*name.defaultText));
    fmt::print(stderr, "glidewell: {} is not stored; that is the engine's default\n", name.display());
    return 0;
  }
  throw HostError(name.display() + " is not stored in " + registry->path());
}

int statsCommand(const StatsOptions& o) {
  std::string dir = resolveInstallDirectory(o.dir);
  auto registry = HostRegistry::open(dir, false);
  const std::wstring counters[] = {L"Processed Files", L"Moved Files", L"Defragged Files"};
  auto counter = [&](const std::string& key, const std::wstring& name) -> std::string {
    auto v = registry->get(key, name);
    return v ? formatValue(*v) : "-";
  };
  std::string statistics = HostRegistry::userKey("statistics");
  fmt::print("statistics in {}, HKEY_CURRENT_USER\\{}\n\n", registry->path(), statistics);
  TextTable table({"", "processed", "moved", "defragged"});
  auto addRow = [&](const std::string& title, const std::string& key) {
    table.addRow({title, counter(key, counters[0]), counter(key, counters[1]), counter(key, counters[2])});
  };
  addRow("last run", statistics);
  std::vector<std::string> days = registry->subkeys(statistics + "\\daily");
  for (auto it = days.rbegin(); it != days.rend(); ++it) addRow(*it, statistics + "\\daily\\" + *it);
  addRow("all time", statistics + "\\complete");
  fmt::print("{}", table.render());
  auto lastFile = registry->get(statistics, L"Last File");
  fmt::print("\nengine status: {}\nlast file:     {}\n", statusText(readEngineStatus(*registry)),
             lastFile ? formatValue(*lastFile) : "-");
  printVolumeModes(*registry);
  return 0;
}

}  // namespace glidewell
