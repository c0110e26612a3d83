// Env: the engine's one seam around the operating system for clocks, files,
// drives and the pause pipe (the registry backend and the crash handler have
// seams of their own; what stands behind a drive letter comes from the drive
// providers of platform/drive_provider.h).
//
// Env::current() is what the engine uses. It is the real environment of the
// system it was built for (win32/ or posix/) unless a test installed another
// one with Env::setCurrent, which must happen before any engine thread runs.
// Implementations must be thread safe: the host thread, the worker and the
// watchers call them concurrently.
//
// Paths are Windows paths on every system ("state\", "D:\dir\file"). The POSIX
// environment maps "\" to "/" when it touches the real file system.
#ifndef GLIDEWELL_PLATFORM_ENV_H_
#define GLIDEWELL_PLATFORM_ENV_H_

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "platform/wintypes.h"

namespace glidewell {

// An open file of the real file system (state files, configuration, logs,
// dumps). Closed on destruction. Not shared between threads.
class File {
 public:
  virtual ~File() = default;
  // Reads up to n bytes; *done receives the count (0 at end of file).
  // False on an error, with the error in GetLastError().
  virtual bool read(void* buffer, uint32_t n, uint32_t* done) = 0;
  // Writes n bytes; *done receives the count actually written.
  virtual bool write(const void* buffer, uint32_t n, uint32_t* done) = 0;
  virtual bool flush() = 0;
  virtual bool size(uint64_t* size) = 0;
};

enum class FileOpen {
  kReadExisting,   // read access, others may read, the file must exist
  kCreateAlways,   // write access, no sharing, replaces an existing file
  kAppendOrCreate,  // write access at the end, others may read, created when missing
  kCreateShareRead  // write access, others may read, replaces an existing file (log files)
};

// A held-open operating-system object (the client end of a pipe).
class OsHandle {
 public:
  virtual ~OsHandle() = default;
};

class Env {
 public:
  virtual ~Env() = default;

  static Env* current();
  // Installs env (not owned) as the current environment; null restores the
  // system's own.
  static void setCurrent(Env* env);
  static Env* system();

  // The install directory the host passed to dfrg_initialize (with its trailing
  // separator). The POSIX environment keeps its drive images below it.
  virtual void setInstallDirectory(const std::wstring& dir) = 0;
  virtual std::wstring installDirectory() = 0;

  // --- Clocks ---
  // Milliseconds of the multimedia timer (timeGetTime); wraps at 2^32.
  virtual uint32_t timeGetTime() = 0;
  // Milliseconds since start-up (GetTickCount); wraps at 2^32.
  virtual uint32_t tickCount() = 0;
  // The local date and time (GetLocalTime).
  virtual SYSTEMTIME localTime() = 0;
  // SystemTimeToFileTime: 100-ns units since 1601-01-01 of the given time,
  // taken as it is (no zone conversion). False for an invalid date.
  virtual bool systemTimeToFileTime(const SYSTEMTIME& time, uint64_t* fileTime) = 0;
  // The current UTC time as a file time (CoFileTimeNow).
  virtual uint64_t fileTimeNow() = 0;
  virtual void sleep(uint32_t ms) = 0;

  // --- Files ---
  // Opens a file; on failure returns null with *error (when given) set to the
  // Win32 error number (2 not found, 3 path not found, 5 access denied...).
  virtual std::unique_ptr<File> openFile(const std::wstring& path, FileOpen how, DWORD* error) = 0;
  // A buffered runtime stream (fopen-style mode such as "wb"); null on failure.
  // The caller closes it with fclose.
  virtual std::FILE* openStream(const std::wstring& path, const char* mode) = 0;
  // CreateDirectoryW: false when it fails, for example because it exists.
  virtual bool createDirectory(const std::wstring& path) = 0;
  virtual bool deleteFile(const std::wstring& path) = 0;
  // GetCurrentDirectoryW.
  virtual std::wstring currentDirectory() = 0;

  // --- Drives ---
  // The system environments answer these from the process's drive list
  // (platform/drive_provider.h, through which the engine also opens a drive's
  // volume); a test environment may answer them itself.
  // GetLogicalDrives: bit i set when drive 'A' + i exists.
  virtual DWORD logicalDrives();
  // GetDriveTypeW of a root path such as "C:\\" (DRIVE_NO_ROOT_DIR when no
  // drive has that root).
  virtual UINT driveType(const std::wstring& rootPath);
  // The volume label (GetVolumeInformationW asking only for the name).
  virtual bool volumeLabel(const std::wstring& rootPath, std::wstring* label);

  // --- Named pipes ---
  // Opens the client end of a named pipe ("\\.\pipe\Name") for reading.
  // Null on failure with *error set (231 ERROR_PIPE_BUSY when every instance
  // is busy, 2 when there is no such pipe).
  virtual std::unique_ptr<OsHandle> openPipeClient(const std::wstring& name, DWORD* error) = 0;
  // WaitNamedPipeW: true when an instance became available within timeoutMs.
  virtual bool waitNamedPipe(const std::wstring& name, uint32_t timeoutMs) = 0;

  // --- Process ---
  // Ends the process at once with the given exit status.
  virtual void exitProcess(int status) = 0;
};

// An Env that passes every call to another one; a test or a tool derives from
// it and overrides only what it takes over.
class EnvWrapper : public Env {
 public:
  explicit EnvWrapper(Env* target) : target_(target) {}
  Env* target() const { return target_; }

  void setInstallDirectory(const std::wstring& dir) override { target_->setInstallDirectory(dir); }
  std::wstring installDirectory() override { return target_->installDirectory(); }
  uint32_t timeGetTime() override { return target_->timeGetTime(); }
  uint32_t tickCount() override { return target_->tickCount(); }
  SYSTEMTIME localTime() override { return target_->localTime(); }
  bool systemTimeToFileTime(const SYSTEMTIME& t, uint64_t* ft) override { return target_->systemTimeToFileTime(t, ft); }
  uint64_t fileTimeNow() override { return target_->fileTimeNow(); }
  void sleep(uint32_t ms) override { target_->sleep(ms); }
  std::unique_ptr<File> openFile(const std::wstring& path, FileOpen how, DWORD* error) override {
    return target_->openFile(path, how, error);
  }
  std::FILE* openStream(const std::wstring& path, const char* mode) override { return target_->openStream(path, mode); }
  bool createDirectory(const std::wstring& path) override { return target_->createDirectory(path); }
  bool deleteFile(const std::wstring& path) override { return target_->deleteFile(path); }
  std::wstring currentDirectory() override { return target_->currentDirectory(); }
  DWORD logicalDrives() override { return target_->logicalDrives(); }
  UINT driveType(const std::wstring& rootPath) override { return target_->driveType(rootPath); }
  bool volumeLabel(const std::wstring& rootPath, std::wstring* label) override {
    return target_->volumeLabel(rootPath, label);
  }
  std::unique_ptr<OsHandle> openPipeClient(const std::wstring& name, DWORD* error) override {
    return target_->openPipeClient(name, error);
  }
  bool waitNamedPipe(const std::wstring& name, uint32_t timeoutMs) override {
    return target_->waitNamedPipe(name, timeoutMs);
  }
  void exitProcess(int status) override { target_->exitProcess(status); }

 private:
  Env* target_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_ENV_H_
