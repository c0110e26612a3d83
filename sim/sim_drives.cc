#include "sim/sim_drives.h"

#include "engine/dfrg_exception.h"
#include "logging/logger.h"
#include "platform/text.h"
#include "sim/sim_volume_system.h"

namespace glidewell {

namespace {

wchar_t keyOf(wchar_t letter) { return (letter >= L'a' && letter <= L'z') ? static_cast<wchar_t>(letter - 32) : letter; }

std::string deviceMessage(wchar_t letter) {
  return "Couldn't open Volume ! " + narrow(L"\\\\.\\" + std::wstring(1, letter) + L":");
}

}  // namespace

// Held by every volume handle of a drive; the last one to go releases the drive.
class SimDrives::Lease {
 public:
  Lease(SimDrives& owner, wchar_t key, std::shared_ptr<SimDisk> disk)
      : owner_(owner), key_(key), disk_(std::move(disk)) {}
  ~Lease() { owner_.release(key_, disk_); }

 private:
  SimDrives& owner_;
  wchar_t key_;
  std::shared_ptr<SimDisk> disk_;
};

SimDrives& SimDrives::instance() {
  static SimDrives drives;
  return drives;
}

void SimDrives::plug(wchar_t letter, std::shared_ptr<SimDisk> disk) {
  std::lock_guard<std::mutex> guard(mutex_);
  Drive& drive = drives_[keyOf(letter)];
  drive = Drive{};
  drive.disk = std::move(disk);
  drive.plugged = true;
}

void SimDrives::unplug(wchar_t letter) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = drives_.find(keyOf(letter));
  if (it != drives_.end() && it->second.plugged) drives_.erase(it);
}

DWORD SimDrives::pluggedDrives() const {
  std::lock_guard<std::mutex> guard(mutex_);
  DWORD mask = 0;
  for (const auto& d : drives_) {
    if (d.second.plugged && d.first >= L'A' && d.first <= L'Z') mask |= 1u << (d.first - L'A');
  }
  return mask;
}

std::shared_ptr<SimDisk> SimDrives::disk(wchar_t letter) const {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = drives_.find(keyOf(letter));
  return it != drives_.end() ? it->second.disk : nullptr;
}

int SimDrives::openHandles(wchar_t letter) const {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = drives_.find(keyOf(letter));
  return it != drives_.end() ? it->second.handles : 0;
}

std::unique_ptr<CVolumeSystem> SimDrives::open(wchar_t letter, const Loader& load, const Saver& save) {
  wchar_t key = keyOf(letter);
  std::shared_ptr<Lease> lease;
  std::shared_ptr<SimDisk> disk;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = drives_.find(key);
    if (it == drives_.end()) {
      std::string error;
      std::unique_ptr<SimDisk> loaded = load ? load(&error) : nullptr;
      if (!loaded) {
        Logger log("SimDrives::open");
        log.log(kLogError) << "Couldn't load the drive's image" << LogProperty("Volume", std::wstring(1, letter))
                           << LogProperty("Error", error);
        throw CDfrgException(ErrorVolumeUnavailable, deviceMessage(letter));
      }
      Drive drive;
      drive.disk = std::move(loaded);
      drive.save = save;
      drive.loadedGeneration = drive.disk->generation();
      it = drives_.emplace(key, std::move(drive)).first;
    }
    ++it->second.handles;
    disk = it->second.disk;
  }
  // Built outside the lock: when the volume has vanished the constructor
  // throws, and the lease then releases the drive again.
  lease = std::make_shared<Lease>(*this, key, disk);
  return std::make_unique<SimVolumeSystem>(disk, letter, std::move(lease));
}

void SimDrives::release(wchar_t key, const std::shared_ptr<SimDisk>& disk) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = drives_.find(key);
  if (it == drives_.end() || it->second.disk != disk) return;  // unplugged or replaced meanwhile
  Drive& drive = it->second;
  if (--drive.handles > 0 || drive.plugged) return;
  if (drive.save && disk->generation() != drive.loadedGeneration) {
    std::string error;
    if (!drive.save(*disk, &error)) {
      Logger log("SimDrives::release");
      log.log(kLogError) << "Couldn't write the drive back to its image"
                         << LogProperty("Volume", std::wstring(1, key)) << LogProperty("Error", error);
    }
  }
  drives_.erase(it);
}

}  // namespace glidewell
