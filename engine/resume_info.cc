// The smart driver's state across iterations and restarts: the resume info
// file (where an interrupted scan pass goes on, its pass statistics and
// deferred files, every volume's pass numbers) and the volume modes in the
// registry below HKEY_LOCAL_MACHINE.
#include <cwctype>

#include "config/dfrg_config.h"
#include "config/dfrg_statistics.h"
#include "config/registry_store.h"
#include "config/state_file.h"
#include "engine/dfrg_thread.h"
#include "platform/env.h"

namespace glidewell {

namespace {
constexpr int32_t kResumeInfoVersion = 3;
constexpr DWORD kVolumeModeVersion = 1;
// A volume record: letter, pass, panic pass.
constexpr uint32_t kVolumeRecordBytes = 12;
constexpr uint64_t kFileTimeUnitsPerMs = 10000;
constexpr double kMsPerDay = 86400000.0;

std::wstring modeName(CDfrgContext& ctx) { return L"volumeMode_" + std::wstring(1, ctx.volume().getDriveLetter()); }
std::wstring modeTimeName(CDfrgContext& ctx) {
  return L"volumeModeTime_" + std::wstring(1, ctx.volume().getDriveLetter());
}

bool startsWithIgnoringCase(const std::wstring& text, const std::wstring& prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (towlower(text[i]) != towlower(prefix[i])) return false;
  }
  return true;
}
}  // namespace

std::wstring DfrgThread::resumeInfoPath() const {
  return (config_ != nullptr ? config_->stateDirectory() : std::wstring()) + L"resumeInfo";
}

bool DfrgThread::saveResumeInfo() {
  StateFileWriter out(resumeInfoPath());
  if (!out.ok()) return false;
  bool ok = out.writeInt32(kResumeInfoVersion) && out.writeString(resumePath_) && out.writeInt64(counters_.defragged) &&
            out.writeInt64(counters_.nonDefraggable) && out.writeInt64(counters_.spaceOnly) && out.writeInt64(counters_.errors) &&
            out.writeInt64(counters_.moved) && out.writeInt64(counters_.processed) && out.writeBool(deferredOverflow_) &&
            out.writeInt32(static_cast<int32_t>(deferred_.size()));
  for (size_t i = 0; ok && i < deferred_.size(); ++i) ok = out.writeString(deferred_[i]);
  ok = ok && out.writeInt32(static_cast<int32_t>(contexts_.size()));
  for (size_t i = 0; ok && i < contexts_.size(); ++i) {
    CDfrgContext& ctx = *contexts_[i];
    ok = out.writeInt32(static_cast<int32_t>(static_cast<uint16_t>(ctx.volume().getDriveLetter()))) &&
         out.writeInt32(ctx.pass) && out.writeInt32(ctx.panicPass);
  }
  return ok;
}

bool DfrgThread::loadResumeInfo() {
  StateFileReader in(resumeInfoPath());
  bool valid = in.ok();
  int32_t version = 0;
  valid = valid && in.readInt32(&version) && version == kResumeInfoVersion;
  valid = valid && in.readString(&resumePath_) && in.readInt64(&counters_.defragged) &&
          in.readInt64(&counters_.nonDefraggable) && in.readInt64(&counters_.spaceOnly) && in.readInt64(&counters_.errors) &&
          in.readInt64(&counters_.moved) && in.readInt64(&counters_.processed) && in.readBool(&deferredOverflow_);
  int32_t count = 0;
  if (valid) {
    // Each path takes at least its 4-byte count.
    valid = in.readCount(&count, 4);
    std::vector<std::wstring> list;
    for (int32_t i = 0; valid && i < count; ++i) {
      std::wstring path;
      valid = in.readString(&path);
      list.push_back(std::move(path));
    }
    if (valid) deferred_ = std::move(list);
  }
  for (auto& ctx : contexts_) ctx->pass = ctx->panicPass = -1;
  valid = valid && in.readCount(&count, kVolumeRecordBytes);
  for (int32_t i = 0; valid && i < count; ++i) {
    int32_t letter = 0, pass = 0, panicPass = 0;
    valid = in.readInt32(&letter) && in.readInt32(&pass) && in.readInt32(&panicPass);
    if (!valid) break;
    for (auto& ctx : contexts_) {
      if (static_cast<uint16_t>(ctx->volume().getDriveLetter()) == static_cast<uint16_t>(letter)) {
        ctx->pass = pass;
        ctx->panicPass = panicPass;
        break;
      }
    }
  }
  if (valid) return true;
  resumePath_.clear();
  for (auto& ctx : contexts_) ctx->pass = ctx->panicPass = -1;
  resetPassStatistics();
  return false;
}

int32_t DfrgThread::getVolumeMode(CDfrgContext& ctx, double* ageDays) {
  if (ageDays != nullptr) *ageDays = 0.0;
  CRegistryStore store(HKEY_LOCAL_MACHINE);
  CRegistryKey key = store.key(registryKeyPath_, KEY_ALL_ACCESS, true);
  if (!key.isValid()) return kVolumeModeScan;
  DWORD mode = 0;
  if (!key.getDword(modeName(ctx), mode, 0)) return kVolumeModeScan;
  uint64_t stored = 0;
  if (ageDays != nullptr && key.getQword(modeTimeName(ctx), stored, 0)) {
    uint64_t now = Env::current()->fileTimeNow();
    int64_t ms = static_cast<int64_t>(now - stored) / static_cast<int64_t>(kFileTimeUnitsPerMs);
    *ageDays = static_cast<double>(ms) / kMsPerDay;
  }
  return static_cast<int32_t>(mode);
}

int32_t DfrgThread::setVolumeMode(CDfrgContext& ctx, int32_t mode) {
  {
    CRegistryStore store(HKEY_LOCAL_MACHINE);
    CRegistryKey key = store.key(registryKeyPath_, KEY_ALL_ACCESS, true);
    if (key.isValid()) {
      key.setDword(modeName(ctx), static_cast<DWORD>(mode));
      key.setQword(modeTimeName(ctx), Env::current()->fileTimeNow());
    }
  }
  updateEngineStatus();
  return mode;
}

void DfrgThread::migrateVolumeModes() {
  CRegistryStore store(HKEY_LOCAL_MACHINE);
  CRegistryKey key = store.key(registryKeyPath_, KEY_ALL_ACCESS, true);
  if (!key.isValid()) return;
  DWORD version = 0;
  key.getDword(std::string("volumeModeVersion"), version, 0);
  if (version != kVolumeModeVersion) {
    // Only the mode values of older versions go; "volumeModeTime_..." does
    // not match the prefix and stays.
    std::vector<DWORD> old;
    std::wstring name;
    for (DWORD i = 0; key.valueNameAt(i, name); ++i) {
      if (startsWithIgnoringCase(name, L"volumeMode_")) old.push_back(i);
    }
    // Deleting from the highest index down keeps the lower indexes valid.
    for (auto it = old.rbegin(); it != old.rend(); ++it) key.deleteValueAt(*it);
  }
  key.setDword(std::string("volumeModeVersion"), kVolumeModeVersion);
}

void DfrgThread::updateEngineStatus() {
  bool allReact = true;
  bool anyPaused = false;
  for (auto& ctx : contexts_) {
    if (getVolumeMode(*ctx, nullptr) != kVolumeModeReact) allReact = false;
    if (!ctx->runEvent.isSet()) anyPaused = true;
  }
  CDfrgStatistics* stats = CDfrgStatistics::instance();
  if (stats == nullptr) return;
  int status = stats->getStatus();
  if (allReact && !reactInProgress_) {
    if (status == 1 || status == 3) {
      stats->setStatus(4);
      stats->flush(true);
    }
  } else if (status == 4) {
    stats->setStatus(anyPaused ? 1 : 3);
    stats->flush(true);
  }
}

}  // namespace glidewell
