#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "platform/posix/posix_env.h"
#include "platform/text.h"

namespace {
thread_local DWORD lastError = 0;
}

DWORD GetLastError() { return lastError; }
void SetLastError(DWORD error) { lastError = error; }

namespace glidewell {

namespace {

DWORD win32Error(int err) {
  switch (err) {
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS: return ERROR_ACCESS_DENIED;
    case EEXIST: return ERROR_ALREADY_EXISTS;
    case ENOSPC: return ERROR_DISK_FULL;
    case ENAMETOOLONG: return ERROR_INVALID_NAME;
    case EBUSY: return ERROR_SHARING_VIOLATION;
    default: return ERROR_INVALID_PARAMETER;
  }
}

class PosixFile : public File {
 public:
  explicit PosixFile(int fd) : fd_(fd) {}
  ~PosixFile() override { ::close(fd_); }

  bool read(void* buffer, uint32_t n, uint32_t* done) override {
    ssize_t r;
    do {
      r = ::read(fd_, buffer, n);
    } while (r < 0 && errno == EINTR);
    if (r < 0) {
      *done = 0;
      SetLastError(win32Error(errno));
      return false;
    }
    *done = static_cast<uint32_t>(r);
    return true;
  }

  bool write(const void* buffer, uint32_t n, uint32_t* done) override {
    const char* p = static_cast<const char*>(buffer);
    uint32_t total = 0;
    while (total < n) {
      ssize_t w = ::write(fd_, p + total, n - total);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        *done = total;
        SetLastError(w < 0 ? win32Error(errno) : ERROR_WRITE_FAULT);
        return false;
      }
      total += static_cast<uint32_t>(w);
    }
    *done = total;
    return true;
  }

  bool flush() override { return ::fsync(fd_) == 0 || errno == EINVAL; }

  bool size(uint64_t* size) override {
    struct stat st;
    if (::fstat(fd_, &st) != 0) {
      SetLastError(win32Error(errno));
      return false;
    }
    *size = static_cast<uint64_t>(st.st_size);
    return true;
  }

 private:
  int fd_;
};

class SocketHandle : public OsHandle {
 public:
  explicit SocketHandle(int fd) : fd_(fd) {}
  ~SocketHandle() override { ::close(fd_); }

 private:
  int fd_;
};

}  // namespace

std::string posixPath(const std::wstring& windowsPath) {
  std::string p = narrow(windowsPath);
  for (char& c : p) {
    if (c == '\\') c = '/';
  }
  return p;
}

std::string pipeSocketPath(const std::wstring& pipeName) {
  std::wstring leaf = pipeName;
  size_t cut = leaf.find_last_of(L"\\/");
  if (cut != std::wstring::npos) leaf = leaf.substr(cut + 1);
  const char* dir = std::getenv("GLIDEWELL_PIPE_DIR");
  std::string base = dir != nullptr && *dir != '\0' ? dir : "/tmp";
  return base + "/glidewell-pipe-" + narrow(leaf);
}

Env* Env::system() {
  static PosixEnv* env = new PosixEnv;  // lives for the whole process, like the OS it stands for
  return env;
}

void PosixEnv::setInstallDirectory(const std::wstring& dir) {
  std::lock_guard<std::mutex> g(mutex_);
  installDir_ = dir;
}

std::wstring PosixEnv::installDirectory() {
  std::lock_guard<std::mutex> g(mutex_);
  return installDir_;
}

uint32_t PosixEnv::timeGetTime() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u + ts.tv_nsec / 1000000);
}

uint32_t PosixEnv::tickCount() { return timeGetTime(); }

SYSTEMTIME PosixEnv::localTime() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tmv;
  localtime_r(&ts.tv_sec, &tmv);
  SYSTEMTIME st;
  st.wYear = static_cast<WORD>(tmv.tm_year + 1900);
  st.wMonth = static_cast<WORD>(tmv.tm_mon + 1);
  st.wDayOfWeek = static_cast<WORD>(tmv.tm_wday);
  st.wDay = static_cast<WORD>(tmv.tm_mday);
  st.wHour = static_cast<WORD>(tmv.tm_hour);
  st.wMinute = static_cast<WORD>(tmv.tm_min);
  st.wSecond = static_cast<WORD>(tmv.tm_sec);
  st.wMilliseconds = static_cast<WORD>(ts.tv_nsec / 1000000);
  return st;
}

bool PosixEnv::systemTimeToFileTime(const SYSTEMTIME& t, uint64_t* fileTime) {
  if (t.wYear < 1601 || t.wYear > 30827 || t.wMonth < 1 || t.wMonth > 12 || t.wDay < 1 || t.wDay > 31 ||
      t.wHour > 23 || t.wMinute > 59 || t.wSecond > 59 || t.wMilliseconds > 999) {
    return false;
  }
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  auto leap = [](int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; };
  int maxDay = kDays[t.wMonth - 1] + (t.wMonth == 2 && leap(t.wYear) ? 1 : 0);
  if (t.wDay > maxDay) return false;
  // Days from 1601-01-01 to the given date.
  int64_t days = 0;
  int y = t.wYear - 1601;
  days = static_cast<int64_t>(y) * 365 + y / 4 - y / 100 + y / 400;
  for (int m = 1; m < t.wMonth; ++m) days += kDays[m - 1] + (m == 2 && leap(t.wYear) ? 1 : 0);
  days += t.wDay - 1;
  int64_t ms = ((days * 24 + t.wHour) * 60 + t.wMinute) * 60 * 1000LL + t.wSecond * 1000LL + t.wMilliseconds;
  *fileTime = static_cast<uint64_t>(ms) * 10000u;
  return true;
}

uint64_t PosixEnv::fileTimeNow() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  // 1601-01-01 to 1970-01-01 is 11644473600 seconds.
  return (static_cast<uint64_t>(ts.tv_sec) + 11644473600ull) * 10000000ull + ts.tv_nsec / 100;
}

void PosixEnv::sleep(uint32_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

std::unique_ptr<File> PosixEnv::openFile(const std::wstring& path, FileOpen how, DWORD* error) {
  std::string p = posixPath(path);
  int flags = O_CLOEXEC;
  switch (how) {
    case FileOpen::kReadExisting: flags |= O_RDONLY; break;
    case FileOpen::kCreateAlways:
    case FileOpen::kCreateShareRead: flags |= O_WRONLY | O_CREAT | O_TRUNC; break;
    case FileOpen::kAppendOrCreate: flags |= O_WRONLY | O_CREAT | O_APPEND; break;
  }
  int fd = ::open(p.c_str(), flags, 0644);
  if (fd < 0) {
    DWORD e = win32Error(errno);
    // A missing folder on the way is "path not found", as on Windows.
    if (errno == ENOENT && how != FileOpen::kReadExisting) e = ERROR_PATH_NOT_FOUND;
    if (error != nullptr) *error = e;
    SetLastError(e);
    return nullptr;
  }
  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    ::close(fd);
    if (error != nullptr) *error = ERROR_ACCESS_DENIED;
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
  }
  return std::make_unique<PosixFile>(fd);
}

std::FILE* PosixEnv::openStream(const std::wstring& path, const char* mode) {
  std::FILE* f = std::fopen(posixPath(path).c_str(), mode);
  if (f == nullptr) SetLastError(win32Error(errno));
  return f;
}

bool PosixEnv::createDirectory(const std::wstring& path) {
  std::string p = posixPath(path);
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  if (::mkdir(p.c_str(), 0755) != 0) {
    SetLastError(win32Error(errno));
    return false;
  }
  return true;
}

bool PosixEnv::deleteFile(const std::wstring& path) {
  if (::unlink(posixPath(path).c_str()) != 0) {
    SetLastError(win32Error(errno));
    return false;
  }
  return true;
}

std::wstring PosixEnv::currentDirectory() {
  char buf[4096];
  if (::getcwd(buf, sizeof(buf)) == nullptr) return std::wstring();
  return widen(buf);
}

std::unique_ptr<OsHandle> PosixEnv::openPipeClient(const std::wstring& name, DWORD* error) {
  std::string path = pipeSocketPath(name);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    if (error != nullptr) *error = ERROR_NOT_ENOUGH_MEMORY;
    return nullptr;
  }
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    int err = errno;
    ::close(fd);
    DWORD e = (err == EAGAIN) ? ERROR_PIPE_BUSY : ERROR_FILE_NOT_FOUND;
    if (error != nullptr) *error = e;
    SetLastError(e);
    return nullptr;
  }
  return std::make_unique<SocketHandle>(fd);
}

bool PosixEnv::waitNamedPipe(const std::wstring& name, uint32_t timeoutMs) {
  std::string path = pipeSocketPath(name);
  uint32_t start = timeGetTime();
  for (;;) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) return true;
    if (timeGetTime() - start >= timeoutMs) return false;
    sleep(10);
  }
}

void PosixEnv::exitProcess(int status) { std::_Exit(status); }

}  // namespace glidewell
