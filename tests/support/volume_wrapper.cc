#include "support/volume_wrapper.h"

namespace glidewell {

namespace {

class VolumeWrapper : public CVolumeSystem {
 public:
  VolumeWrapper(std::unique_ptr<CVolumeSystem> inner, std::shared_ptr<VolumeProbe> probe)
      : inner_(std::move(inner)), probe_(std::move(probe)) {}

  std::wstring getVolumeName() override { return inner_->getVolumeName(); }
  uint64_t getTotalClusters() override { return inner_->getTotalClusters(); }
  uint32_t getBytesPerCluster() override { return inner_->getBytesPerCluster(); }
  int32_t getFileSystemType() override { return inner_->getFileSystemType(); }
  wchar_t getDriveLetter() override { return inner_->getDriveLetter(); }
  bool getVolumeBitmap(std::unique_ptr<uint8_t[]>* bitmap) override { return inner_->getVolumeBitmap(bitmap); }
  void getExtendedStatistics(uint64_t* a, uint64_t* b) override { inner_->getExtendedStatistics(a, b); }
  BOOL getVolumeInformation(wchar_t* n, DWORD ns, DWORD* s, DWORD* m, DWORD* f, wchar_t* fs, DWORD fss) override {
    return inner_->getVolumeInformation(n, ns, s, m, f, fs, fss);
  }
  BOOL getDiskFreeSpace(DWORD* a, DWORD* b, DWORD* c, DWORD* d) override { return inner_->getDiskFreeSpace(a, b, c, d); }
  HANDLE createFile(const std::wstring& path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES sa, DWORD disp,
                    DWORD flags, HANDLE tmpl) override {
    std::function<void(const std::wstring&)> hook;
    {
      std::lock_guard<std::mutex> g(probe_->mutex);
      probe_->opened.push_back(path);
      hook = probe_->beforeOpen;
    }
    if (hook) hook(path);
    {
      std::lock_guard<std::mutex> g(probe_->mutex);
      auto it = probe_->failOpen.find(path);
      if (it != probe_->failOpen.end()) {
        SetLastError(it->second);
        return INVALID_HANDLE_VALUE;
      }
    }
    return inner_->createFile(path, access, share, sa, disp, flags, tmpl);
  }
  BOOL closeHandle(HANDLE h) override { return inner_->closeHandle(h); }
  BOOL getFileSize(HANDLE h, int64_t* size) override { return inner_->getFileSize(h, size); }
  DWORD getFileAttributes(const std::wstring& path) override { return inner_->getFileAttributes(path); }
  BOOL getVolumeBitmapChunk(const int64_t* lcn, void* buf, DWORD size, DWORD* got) override {
    return inner_->getVolumeBitmapChunk(lcn, buf, size, got);
  }
  BOOL moveFile(const MOVE_FILE_DATA* move) override {
    std::function<void(const MOVE_FILE_DATA&)> hook;
    {
      std::lock_guard<std::mutex> g(probe_->mutex);
      probe_->moves.push_back(*move);
      hook = probe_->beforeMove;
    }
    if (hook) hook(*move);
    return inner_->moveFile(move);
  }
  BOOL getRetrievalPointers(HANDLE f, const int64_t* vcn, void* buf, DWORD size, DWORD* got) override {
    return inner_->getRetrievalPointers(f, vcn, buf, size, got);
  }
  HANDLE findFirstFile(const std::wstring& pattern, WIN32_FIND_DATAW* data) override {
    HANDLE h = inner_->findFirstFile(pattern, data);
    if (h != INVALID_HANDLE_VALUE) markJunction(data);
    return h;
  }
  BOOL findNextFile(HANDLE h, WIN32_FIND_DATAW* data) override {
    BOOL ok = inner_->findNextFile(h, data);
    if (ok) markJunction(data);
    return ok;
  }
  BOOL findClose(HANDLE h) override { return inner_->findClose(h); }

 private:
  void markJunction(WIN32_FIND_DATAW* data) {
    std::lock_guard<std::mutex> g(probe_->mutex);
    if (probe_->junctions.count(data->cFileName) != 0) data->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
  }

  std::unique_ptr<CVolumeSystem> inner_;
  std::shared_ptr<VolumeProbe> probe_;
};

}  // namespace

std::unique_ptr<CVolumeSystem> wrapVolume(std::unique_ptr<CVolumeSystem> inner, std::shared_ptr<VolumeProbe> probe) {
  return std::make_unique<VolumeWrapper>(std::move(inner), std::move(probe));
}

}  // namespace glidewell
