// ScopedHandle: owns one Win32 kernel handle (file, pipe, event, thread) and
// closes it when it goes away. Move-only, so a handle has exactly one owner.
// Both null and INVALID_HANDLE_VALUE mean "no handle": CreateFileW reports
// failure with the one, CreateEventW and CreateThread with the other.
#ifndef GLIDEWELL_PLATFORM_WIN32_SCOPED_HANDLE_H_
#define GLIDEWELL_PLATFORM_WIN32_SCOPED_HANDLE_H_

#include <utility>

#include "platform/wintypes.h"

namespace glidewell {

class ScopedHandle {
 public:
  ScopedHandle() = default;
  explicit ScopedHandle(HANDLE handle) : handle_(handle) {}
  ~ScopedHandle() { close(); }

  ScopedHandle(ScopedHandle&& other) noexcept : handle_(other.release()) {}
  ScopedHandle& operator=(ScopedHandle&& other) noexcept {
    if (this != &other) {
      close();
      handle_ = other.release();
    }
    return *this;
  }
  ScopedHandle(const ScopedHandle&) = delete;
  ScopedHandle& operator=(const ScopedHandle&) = delete;

  bool isValid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return handle_; }

  HANDLE release() {
    HANDLE h = handle_;
    handle_ = nullptr;
    return h;
  }

  // CloseHandle preserves nothing worth reporting here; the caller's last
  // error is kept, because close() often runs on an error path.
  void close() {
    if (isValid()) {
      DWORD error = ::GetLastError();
      ::CloseHandle(handle_);
      ::SetLastError(error);
    }
    handle_ = nullptr;
  }

 private:
  HANDLE handle_ = nullptr;
};

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_WIN32_SCOPED_HANDLE_H_
