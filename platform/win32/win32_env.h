// The Windows environment: the engine's Env over the Win32 API
// (env_win32.cc: clocks, files, pipes, process). Its drives are those of the
// drive list (platform/drive_provider.h), where volume/win32 adds the
// system's own.
#ifndef GLIDEWELL_PLATFORM_WIN32_WIN32_ENV_H_
#define GLIDEWELL_PLATFORM_WIN32_WIN32_ENV_H_

#include <mutex>
#include <string>

#include "platform/env.h"

namespace glidewell {

class Win32Env : public Env {
 public:
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

  std::unique_ptr<OsHandle> openPipeClient(const std::wstring& name, DWORD* error) override;
  bool waitNamedPipe(const std::wstring& name, uint32_t timeoutMs) override;

  void exitProcess(int status) override;

 private:
  std::mutex mutex_;
  std::wstring installDir_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_WIN32_WIN32_ENV_H_
