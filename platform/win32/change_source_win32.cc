// Change notification on a real directory: an overlapped ReadDirectoryChangesW
// on it, waited for together with the watcher's stop event.
#include <string>

#include "platform/win32/directory_change_source.h"

#include "platform/win32/scoped_handle.h"
#include "platform/win32/win32_sync.h"

namespace glidewell {

namespace {

class Win32ChangeSource : public ChangeSource {
 public:
  Win32ChangeSource(ScopedHandle directory, ScopedHandle ioEvent)
      : directory_(std::move(directory)), ioEvent_(std::move(ioEvent)), buffer_(kChangeBufferBytes) {}

  ~Win32ChangeSource() override {
    if (reading_) {
      // The system writes into buffer_ until the cancelled read completes.
      ::CancelIo(directory_.get());
      DWORD n = 0;
      ::GetOverlappedResult(directory_.get(), &overlapped_, &n, TRUE);
    }
  }

  bool startRead() override {
    overlapped_ = OVERLAPPED{};
    overlapped_.hEvent = ioEvent_.get();
    ::ResetEvent(ioEvent_.get());
    reading_ = ::ReadDirectoryChangesW(directory_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()), TRUE,
                                       kChangeFilter, nullptr, &overlapped_, nullptr) != 0;
    return reading_;
  }

  bool waitForChanges(Event& stop) override {
    HANDLE handles[2] = {nativeHandle(stop), ioEvent_.get()};
    return ::WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1;
  }

  bool takeChanges(std::vector<std::vector<uint8_t>>* batches) override {
    DWORD n = 0;
    if (!::GetOverlappedResult(directory_.get(), &overlapped_, &n, FALSE)) return false;
    reading_ = false;
    if (n > 0) batches->emplace_back(buffer_.begin(), buffer_.begin() + n);
    return true;
  }

 private:
  ScopedHandle directory_;
  ScopedHandle ioEvent_;
  std::vector<uint8_t> buffer_;
  OVERLAPPED overlapped_{};
  bool reading_ = false;
};

}  // namespace

std::unique_ptr<ChangeSource> openDirectoryChangeSource(const std::wstring& directoryPath) {
  ScopedHandle directory(::CreateFileW(directoryPath.c_str(), FILE_LIST_DIRECTORY,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr));
  if (!directory.isValid()) return nullptr;
  ScopedHandle ioEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!ioEvent.isValid()) return nullptr;
  return std::make_unique<Win32ChangeSource>(std::move(directory), std::move(ioEvent));
}

}  // namespace glidewell
