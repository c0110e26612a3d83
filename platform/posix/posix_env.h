// The POSIX environment (env_posix.cc: clocks, files, pipes, process). Its
// drives are those of the drive list (platform/drive_provider.h).
#ifndef GLIDEWELL_PLATFORM_POSIX_POSIX_ENV_H_
#define GLIDEWELL_PLATFORM_POSIX_POSIX_ENV_H_

#include <mutex>
#include <string>

#include "platform/env.h"

namespace glidewell {

// "C:\dir\file" -> "C:/dir/file"; doubled separators are harmless.
std::string posixPath(const std::wstring& windowsPath);

class PosixEnv : public Env {
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

// The socket path that stands for a Windows pipe name on POSIX systems.
std::string pipeSocketPath(const std::wstring& pipeName);

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_POSIX_POSIX_ENV_H_
