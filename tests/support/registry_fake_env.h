// RegistryFakeEnv: an Env for tests with a clock, a local time and a drive
// list that the test sets. Files, pipes and the process go to the system's
// environment; directories are only recorded unless the test asks for real
// ones. Install it with Env::setCurrent (ScopedEnvOverride does that for a scope).
#ifndef GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAKE_ENV_H_
#define GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAKE_ENV_H_

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/env.h"

namespace glidewell {
namespace test {

class RegistryFakeEnv : public Env {
 public:
  RegistryFakeEnv();

  // --- What the test controls ---
  // timeGetTime and tickCount; sleep() advances it instead of waiting.
  void setTime(uint32_t ms);
  void advance(uint32_t ms);
  // localTime(); fileTimeNow() follows it.
  void setLocalTime(int year, int month, int day, int hour = 12, int minute = 0, int second = 0);
  void setLocalTime(const SYSTEMTIME& time);
  // A drive of the given type (DRIVE_FIXED...). A drive without a readable
  // label fails volumeLabel().
  void addDrive(wchar_t letter, UINT type, const std::wstring& label, bool labelReadable = true);
  void removeDrive(wchar_t letter);
  // createDirectory: false always (failing), or the real call (real), or by
  // default only recorded (true the first time for a path, false after).
  void setCreateDirectoryFails(bool fails);
  void setRealDirectories(bool real);
  std::vector<std::wstring> createdDirectories();

  // --- Env ---
  void setInstallDirectory(const std::wstring& dir) override;
  std::wstring installDirectory() override;
  uint32_t timeGetTime() override;
  uint32_t tickCount() override;
  SYSTEMTIME localTime() override;
  bool systemTimeToFileTime(const SYSTEMTIME& time, uint64_t* fileTime) override;
  uint64_t fileTimeNow() override;
  void sleep(uint32_t ms) override;
  std::unique_ptr<File> openFile(const std::wstring& path, FileOpen how, DWORD* error) override;
  std::FILE* openStream(const std::wstring& path, const char* mode) override;
  bool createDirectory(const std::wstring& path) override;
  bool deleteFile(const std::wstring& path) override;
  std::wstring currentDirectory() override;
  DWORD logicalDrives() override;
  UINT driveType(const std::wstring& rootPath) override;
  bool volumeLabel(const std::wstring& rootPath, std::wstring* label) override;
  std::unique_ptr<CVolumeSystem> openVolume(wchar_t driveLetter) override;
  std::unique_ptr<OsHandle> openPipeClient(const std::wstring& name, DWORD* error) override;
  bool waitNamedPipe(const std::wstring& name, uint32_t timeoutMs) override;
  void exitProcess(int status) override;

 private:
  struct Drive {
    UINT type;
    std::wstring label;
    bool labelReadable;
  };
  const Drive* drive(const std::wstring& rootPath);  // under mutex_

  std::mutex mutex_;
  std::wstring installDir_;
  uint32_t time_ = 100000;
  SYSTEMTIME local_{};
  std::map<wchar_t, Drive> drives_;
  bool createFails_ = false;
  bool realDirectories_ = false;
  std::vector<std::wstring> created_;
};

// Installs an Env for the length of a scope.
class ScopedEnvOverride {
 public:
  explicit ScopedEnvOverride(Env* env) : saved_(Env::current() == Env::system() ? nullptr : Env::current()) {
    Env::setCurrent(env);
  }
  ~ScopedEnvOverride() { Env::setCurrent(saved_); }
  ScopedEnvOverride(const ScopedEnvOverride&) = delete;
  ScopedEnvOverride& operator=(const ScopedEnvOverride&) = delete;

 private:
  Env* saved_;
};

}  // namespace test
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAKE_ENV_H_
