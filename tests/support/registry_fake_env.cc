#include "support/registry_fake_env.h"

#include <algorithm>
#include <cwctype>

#include "volume/volume_system.h"

namespace glidewell {
namespace test {

RegistryFakeEnv::RegistryFakeEnv() { setLocalTime(2024, 5, 15); }

void RegistryFakeEnv::setTime(uint32_t ms) {
  std::lock_guard<std::mutex> g(mutex_);
  time_ = ms;
}

void RegistryFakeEnv::advance(uint32_t ms) {
  std::lock_guard<std::mutex> g(mutex_);
  time_ += ms;
}

void RegistryFakeEnv::setLocalTime(int year, int month, int day, int hour, int minute, int second) {
  SYSTEMTIME t{};
  t.wYear = static_cast<WORD>(year);
  t.wMonth = static_cast<WORD>(month);
  t.wDay = static_cast<WORD>(day);
  t.wHour = static_cast<WORD>(hour);
  t.wMinute = static_cast<WORD>(minute);
  t.wSecond = static_cast<WORD>(second);
  setLocalTime(t);
}

void RegistryFakeEnv::setLocalTime(const SYSTEMTIME& time) {
  std::lock_guard<std::mutex> g(mutex_);
  local_ = time;
}

void RegistryFakeEnv::addDrive(wchar_t letter, UINT type, const std::wstring& label, bool labelReadable) {
  std::lock_guard<std::mutex> g(mutex_);
  drives_[static_cast<wchar_t>(towupper(letter))] = Drive{type, label, labelReadable};
}

void RegistryFakeEnv::removeDrive(wchar_t letter) {
  std::lock_guard<std::mutex> g(mutex_);
  drives_.erase(static_cast<wchar_t>(towupper(letter)));
}

void RegistryFakeEnv::setCreateDirectoryFails(bool fails) {
  std::lock_guard<std::mutex> g(mutex_);
  createFails_ = fails;
}

void RegistryFakeEnv::setRealDirectories(bool real) {
  std::lock_guard<std::mutex> g(mutex_);
  realDirectories_ = real;
}

std::vector<std::wstring> RegistryFakeEnv::createdDirectories() {
  std::lock_guard<std::mutex> g(mutex_);
  return created_;
}

void RegistryFakeEnv::setInstallDirectory(const std::wstring& dir) {
  std::lock_guard<std::mutex> g(mutex_);
  installDir_ = dir;
}

std::wstring RegistryFakeEnv::installDirectory() {
  std::lock_guard<std::mutex> g(mutex_);
  return installDir_;
}

uint32_t RegistryFakeEnv::timeGetTime() {
  std::lock_guard<std::mutex> g(mutex_);
  return time_;
}

uint32_t RegistryFakeEnv::tickCount() { return timeGetTime(); }

SYSTEMTIME RegistryFakeEnv::localTime() {
  std::lock_guard<std::mutex> g(mutex_);
  return local_;
}

bool RegistryFakeEnv::systemTimeToFileTime(const SYSTEMTIME& time, uint64_t* fileTime) {
  return Env::system()->systemTimeToFileTime(time, fileTime);
}

uint64_t RegistryFakeEnv::fileTimeNow() {
  uint64_t t = 0;
  systemTimeToFileTime(localTime(), &t);
  return t;
}

void RegistryFakeEnv::sleep(uint32_t ms) { advance(ms); }

std::FILE* RegistryFakeEnv::openStream(const std::wstring& path, const char* mode) {
  return Env::system()->openStream(path, mode);
}

std::unique_ptr<File> RegistryFakeEnv::openFile(const std::wstring& path, FileOpen how, DWORD* error) {
  return Env::system()->openFile(path, how, error);
}

bool RegistryFakeEnv::createDirectory(const std::wstring& path) {
  std::lock_guard<std::mutex> g(mutex_);
  if (createFails_) {
    SetLastError(ERROR_ACCESS_DENIED);
    return false;
  }
  if (realDirectories_) return Env::system()->createDirectory(path);
  if (std::find(created_.begin(), created_.end(), path) != created_.end()) {
    SetLastError(ERROR_ALREADY_EXISTS);
    return false;
  }
  created_.push_back(path);
  return true;
}

bool RegistryFakeEnv::deleteFile(const std::wstring& path) { return Env::system()->deleteFile(path); }

std::wstring RegistryFakeEnv::currentDirectory() { return Env::system()->currentDirectory(); }

DWORD RegistryFakeEnv::logicalDrives() {
  std::lock_guard<std::mutex> g(mutex_);
  DWORD mask = 0;
  for (const auto& d : drives_) {
    if (d.first >= L'A' && d.first <= L'Z') mask |= 1u << (d.first - L'A');
  }
  return mask;
}

const RegistryFakeEnv::Drive* RegistryFakeEnv::drive(const std::wstring& rootPath) {
  if (rootPath.size() < 2 || rootPath[1] != L':') return nullptr;
  auto it = drives_.find(static_cast<wchar_t>(towupper(rootPath[0])));
  return it != drives_.end() ? &it->second : nullptr;
}

UINT RegistryFakeEnv::driveType(const std::wstring& rootPath) {
  std::lock_guard<std::mutex> g(mutex_);
  const Drive* d = drive(rootPath);
  return d != nullptr ? d->type : DRIVE_NO_ROOT_DIR;
}

bool RegistryFakeEnv::volumeLabel(const std::wstring& rootPath, std::wstring* label) {
  std::lock_guard<std::mutex> g(mutex_);
  const Drive* d = drive(rootPath);
  if (d == nullptr || !d->labelReadable) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return false;
  }
  *label = d->label;
  return true;
}

std::unique_ptr<CVolumeSystem> RegistryFakeEnv::openVolume(wchar_t driveLetter) {
  return Env::system()->openVolume(driveLetter);
}

std::unique_ptr<OsHandle> RegistryFakeEnv::openPipeClient(const std::wstring& name, DWORD* error) {
  return Env::system()->openPipeClient(name, error);
}

bool RegistryFakeEnv::waitNamedPipe(const std::wstring& name, uint32_t timeoutMs) {
  return Env::system()->waitNamedPipe(name, timeoutMs);
}

void RegistryFakeEnv::exitProcess(int status) { Env::system()->exitProcess(status); }

}  // namespace test
}  // namespace glidewell
