// Clocks, files, pipes and the process for the Windows environment.
#include <cstring>
#include <vector>

#include "platform/win32/scoped_handle.h"
#include "platform/win32/win32_env.h"
// After <windows.h> (through the headers above), which they build on.
#include <mmsystem.h>
#include <objbase.h>

namespace glidewell {

namespace {

uint64_t fromFileTime(const FILETIME& ft) {
  return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

class Win32File : public File {
 public:
  explicit Win32File(ScopedHandle handle) : handle_(std::move(handle)) {}

  bool read(void* buffer, uint32_t n, uint32_t* done) override {
    DWORD got = 0;
    BOOL ok = ::ReadFile(handle_.get(), buffer, n, &got, nullptr);
    *done = got;
    return ok != FALSE;
  }

  // WriteFile may write less than asked (a full pipe or disk); keep going
  // until all is written or it fails, as the POSIX file does.
  bool write(const void* buffer, uint32_t n, uint32_t* done) override {
    const char* p = static_cast<const char*>(buffer);
    uint32_t total = 0;
    while (total < n) {
      DWORD wrote = 0;
      if (!::WriteFile(handle_.get(), p + total, n - total, &wrote, nullptr)) {
        *done = total;
        return false;
      }
      if (wrote == 0) {
        *done = total;
        ::SetLastError(ERROR_WRITE_FAULT);
        return false;
      }
      total += wrote;
    }
    *done = total;
    return true;
  }

  bool flush() override { return ::FlushFileBuffers(handle_.get()) != FALSE; }

  bool size(uint64_t* size) override {
    LARGE_INTEGER li;
    if (!::GetFileSizeEx(handle_.get(), &li)) return false;
    *size = static_cast<uint64_t>(li.QuadPart);
    return true;
  }

 private:
  ScopedHandle handle_;
};

class Win32Handle : public OsHandle {
 public:
  explicit Win32Handle(ScopedHandle handle) : handle_(std::move(handle)) {}

 private:
  ScopedHandle handle_;
};

}  // namespace

Env* Env::system() {
  static Win32Env* env = new Win32Env;  // lives for the whole process, like the OS it stands for
  return env;
}

void Win32Env::setInstallDirectory(const std::wstring& dir) {
  std::lock_guard<std::mutex> g(mutex_);
  installDir_ = dir;
}

std::wstring Win32Env::installDirectory() {
  std::lock_guard<std::mutex> g(mutex_);
  return installDir_;
}

uint32_t Win32Env::timeGetTime() { return ::timeGetTime(); }

uint32_t Win32Env::tickCount() { return ::GetTickCount(); }

SYSTEMTIME Win32Env::localTime() {
  SYSTEMTIME st;
  ::GetLocalTime(&st);
  return st;
}

bool Win32Env::systemTimeToFileTime(const SYSTEMTIME& time, uint64_t* fileTime) {
  FILETIME ft;
  if (!::SystemTimeToFileTime(&time, &ft)) return false;
  *fileTime = fromFileTime(ft);
  return true;
}

uint64_t Win32Env::fileTimeNow() {
  FILETIME ft;
  if (FAILED(::CoFileTimeNow(&ft))) ::GetSystemTimeAsFileTime(&ft);
  return fromFileTime(ft);
}

void Win32Env::sleep(uint32_t ms) { ::SleepEx(ms, FALSE); }

std::unique_ptr<File> Win32Env::openFile(const std::wstring& path, FileOpen how, DWORD* error) {
  // Readers let writers go on (a log being appended to, a configuration file
  // open in an editor): the engine's readers cope with a file that grows.
  DWORD access = GENERIC_READ;
  DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE;
  DWORD disposition = OPEN_EXISTING;
  switch (how) {
    case FileOpen::kReadExisting:
      break;
    case FileOpen::kCreateAlways:
      access = GENERIC_WRITE;
      share = 0;
      disposition = CREATE_ALWAYS;
      break;
    case FileOpen::kCreateShareRead:  // a log file: readable while it is written
      access = GENERIC_WRITE;
      share = FILE_SHARE_READ;
      disposition = CREATE_ALWAYS;
      break;
    case FileOpen::kAppendOrCreate:
      // Append access without write access makes every write land at the
      // current end of the file, as O_APPEND does; so two appenders of one
      // log file may share it and neither overwrites the other.
      access = FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE;
      disposition = OPEN_ALWAYS;
      break;
  }
  ScopedHandle h(::CreateFileW(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!h.isValid()) {
    if (error != nullptr) *error = ::GetLastError();
    return nullptr;
  }
  // OPEN_ALWAYS and CREATE_ALWAYS report an existing file through the last
  // error (183) even on success; callers must not see that as a failure.
  ::SetLastError(ERROR_SUCCESS);
  return std::make_unique<Win32File>(std::move(h));
}

// The runtime opens the file with CreateFileW, whose error stays the last error.
std::FILE* Win32Env::openStream(const std::wstring& path, const char* mode) {
  std::wstring wideMode(mode, mode + std::strlen(mode));  // "wb", "rb": plain ASCII
  return ::_wfopen(path.c_str(), wideMode.c_str());
}

bool Win32Env::createDirectory(const std::wstring& path) { return ::CreateDirectoryW(path.c_str(), nullptr) != FALSE; }

bool Win32Env::deleteFile(const std::wstring& path) { return ::DeleteFileW(path.c_str()) != FALSE; }

std::wstring Win32Env::currentDirectory() {
  // The directory may change between the size query and the read; retry
  // until the buffer was large enough.
  std::vector<wchar_t> buffer(MAX_PATH + 1);
  for (;;) {
    DWORD n = ::GetCurrentDirectoryW(static_cast<DWORD>(buffer.size()), buffer.data());
    if (n == 0) return std::wstring();
    if (n < buffer.size()) return std::wstring(buffer.data(), n);
    buffer.resize(n + 1);
  }
}

std::unique_ptr<OsHandle> Win32Env::openPipeClient(const std::wstring& name, DWORD* error) {
  ScopedHandle h(::CreateFileW(name.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!h.isValid()) {
    if (error != nullptr) *error = ::GetLastError();
    return nullptr;
  }
  return std::make_unique<Win32Handle>(std::move(h));
}

bool Win32Env::waitNamedPipe(const std::wstring& name, uint32_t timeoutMs) {
  return ::WaitNamedPipeW(name.c_str(), timeoutMs) != FALSE;
}

void Win32Env::exitProcess(int status) { ::ExitProcess(static_cast<UINT>(status)); }

}  // namespace glidewell
