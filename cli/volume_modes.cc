#include "cli/volume_modes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cwctype>

#include "config/state_file.h"
#include "platform/text.h"

namespace glidewell {

namespace {

constexpr int32_t kResumeInfoVersion = 3;
constexpr uint32_t kVolumeRecordBytes = 12;
const std::wstring kModePrefix = L"volumeMode_";

std::optional<uint64_t> numberOf(const std::optional<RegistryValue>& v, DWORD type) {
  size_t size = type == REG_DWORD ? 4 : 8;
  if (!v || v->type != type || v->data.size() != size) return std::nullopt;
  uint64_t n = 0;
  for (size_t i = size; i-- > 0;) n = (n << 8) | v->data[i];
  return n;
}

}  // namespace

std::vector<StoredVolumeMode> readVolumeModes(HostRegistry& registry) {
  std::string key = HostRegistry::userKey("");
  std::vector<StoredVolumeMode> out;
  for (const std::wstring& name : registry.values(key, HKEY_LOCAL_MACHINE)) {
    if (name.size() != kModePrefix.size() + 1) continue;
    if (foldRegistryName(name.substr(0, kModePrefix.size())) != foldRegistryName(kModePrefix)) continue;
    StoredVolumeMode m;
    m.letter = static_cast<wchar_t>(std::towupper(name.back()));
    if (auto n = numberOf(registry.get(key, name, HKEY_LOCAL_MACHINE), REG_DWORD)) {
      m.mode = static_cast<int32_t>(static_cast<uint32_t>(*n));
    }
    m.setAt = numberOf(registry.get(key, L"volumeModeTime_" + std::wstring(1, name.back()), HKEY_LOCAL_MACHINE),
                       REG_QWORD);
    out.push_back(m);
  }
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.letter < b.letter; });
  return out;
}

std::optional<int64_t> readEngineStatus(HostRegistry& registry) {
  auto n = numberOf(registry.get(HostRegistry::userKey("statistics"), L"Status"), REG_DWORD);
  if (!n) return std::nullopt;
  return static_cast<int64_t>(static_cast<int32_t>(static_cast<uint32_t>(*n)));
}

std::optional<ResumeInfoView> readResumeInfo(const std::string& installDir) {
  StateFileReader in(widen(installDir) + L"state\\resumeInfo");
  ResumeInfoView v;
  int32_t version = 0, count = 0;
  bool overflow = false;
  bool ok = in.ok() && in.readInt32(&version) && version == kResumeInfoVersion && in.readString(&v.resumePath) &&
            in.readInt64(&v.defragged) && in.readInt64(&v.nonDefraggable) && in.readInt64(&v.spaceOnly) &&
            in.readInt64(&v.errors) && in.readInt64(&v.moved) && in.readInt64(&v.processed) &&
            in.readBool(&overflow) && in.readCount(&count, 4);
  for (int32_t i = 0; ok && i < count; ++i) {
    std::wstring skipped;
    ok = in.readString(&skipped);
  }
  ok = ok && in.readCount(&count, kVolumeRecordBytes);
  for (int32_t i = 0; ok && i < count; ++i) {
    int32_t letter = 0;
    ResumeInfoView::Volume volume{};
    ok = in.readInt32(&letter) && in.readInt32(&volume.pass) && in.readInt32(&volume.panicPass);
    volume.letter = static_cast<wchar_t>(static_cast<uint16_t>(letter));
    v.volumes.push_back(volume);
  }
  if (!ok) return std::nullopt;
  return v;
}

std::string modeLabel(int32_t mode, int32_t panicPass) {
  if (mode == 0) return panicPass >= 0 ? fmt::format("panic pass {}", panicPass) : "scan";
  if (mode == 1) return "react";
  return fmt::format("mode {}", mode);
}

std::string statusText(std::optional<int64_t> status) {
  if (!status) return "not set";
  switch (*status) {
    case 1: return "1 (paused)";
    case 3: return "3 (working)";
    case 4: return "4 (every volume clean, idle)";
    default: return std::to_string(*status);
  }
}

std::string describeAge(int64_t ms) {
  double s = static_cast<double>(std::max<int64_t>(ms, 0)) / 1000.0;
  if (s < 90) return fmt::format("{:.0f} s", s);
  if (s < 90 * 60) return fmt::format("{:.1f} min", s / 60);
  if (s < 48 * 3600) return fmt::format("{:.1f} h", s / 3600);
  return fmt::format("{:.1f} days", s / 86400);
}

int64_t fileTimeMsBetween(uint64_t earlier, uint64_t later) {
  return later > earlier ? static_cast<int64_t>((later - earlier) / 10000) : 0;
}

}  // namespace glidewell
