#include "engine/file_walk.h"

#include "config/dfrg_config.h"
#include "config/dfrg_statistics.h"
#include "engine/dfrg_exception.h"
#include "engine/dfrg_thread.h"
#include "logging/logger.h"
#include "volume/dfrg_file.h"
#include "volume/volume_system.h"

namespace glidewell {

void listDirectory(CVolumeSystem& volume, const std::wstring& dir, std::vector<DirEntry>& out, bool includeFiles) {
  WIN32_FIND_DATAW data;
  HANDLE find = volume.findFirstFile(dir + L"\\*.*", &data);
  if (find == INVALID_HANDLE_VALUE) return;
  do {
    std::wstring name = data.cFileName;
    DWORD attributes = data.dwFileAttributes;
    bool isDirectory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) continue;
    if (isDirectory) {
      if (name != L"." && name != L"..") out.push_back({name, true, attributes});
    } else if (includeFiles) {
      out.push_back({name, false, attributes});
    }
  } while (volume.findNextFile(find, &data));
  volume.findClose(find);
}

std::wstring parentPath(const std::wstring& path) {
  std::wstring p = path;
  for (;;) {
    size_t cut = p.rfind(L'\\');
    if (cut == std::wstring::npos) return std::wstring();
    if (cut + 1 == p.size()) {  // trailing separator: drop it and search again
      p.erase(cut);
      continue;
    }
    return p.substr(0, cut);
  }
}

std::wstring leafName(const std::wstring& path) {
  size_t cut = path.rfind(L'\\');
  return cut == std::wstring::npos ? path : path.substr(cut + 1);
}

bool DfrgThread::walkDirectory(CDfrgContext& ctx, const std::wstring& dir, const std::wstring& resumePath,
                               bool skipResumeEntry, bool reverse, bool noClimb, int* fileCount) {
  checkState(ctx);
  std::vector<DirEntry> entries;
  listDirectory(ctx.volume(), dir, entries, true);
  std::wstring resumeName = resumePath.empty() ? std::wstring() : leafName(resumePath);

  size_t count = entries.size();
  for (size_t k = 0; k < count; ++k) {
    const DirEntry& entry = entries[reverse ? count - 1 - k : k];
    if (!resumeName.empty()) {
      if (entry.name != resumeName) continue;
      resumeName.clear();
      if (skipResumeEntry) continue;
    }
    std::wstring path = dir + L"\\" + entry.name;
    int n = 0;
    processFile(ctx, path, &n, entry.isDirectory);
    if (fileCount != nullptr) *fileCount += n;
    if (entry.isDirectory) {
      int m = 0;
      walkDirectory(ctx, path, L"", false, reverse, true, &m);
      if (fileCount != nullptr) *fileCount += m;
    }
  }

  if (noClimb) return true;
  std::wstring parent = parentPath(dir);
  if (parent.empty()) return true;
  int m = 0;
  walkDirectory(ctx, parent, dir, true, reverse, false, &m);
  if (fileCount != nullptr) *fileCount += m;
  return true;
}

namespace {
// Errors that only mean the file could not be opened: not found, path not
// found, access denied, invalid drive, sharing violation, network name gone,
// network access denied, bad network name, invalid name.
bool isSilentFileError(int code) {
  switch (code) {
    case 2: case 3: case 5: case 15: case 32: case 64: case 65: case 67: case 123:
      return true;
    default:
      return false;
  }
}
}  // namespace

bool DfrgThread::processFile(CDfrgContext& ctx, const std::wstring& path, int* result, bool isDirectory) {
  counters_.processed += 1;
  CDfrgStatistics* stats = CDfrgStatistics::instance();
  if (stats != nullptr) {
    stats->addProcessed(1);
    stats->setLastFile(path);
  }
  Logger log("processFile");
  std::unique_ptr<CDfrgFile> file;
  try {
    file = std::make_unique<CDfrgFile>(ctx, path, isDirectory);
    const FreeExtentList* runs = nullptr;
    if (!getSnapshot(ctx, &runs)) {
      if (!makeExtentSnapshot(ctx) || !getSnapshot(ctx, &runs)) return false;
    }
    ExtentList extents;
    // A map that could not be read completely is not trusted for moving.
    bool complete = file->getFileExtents(extents);
    if (!complete || extents.empty()) {
      checkState(ctx);
    } else {
      bool defragged = false, movedBetter = false, movedLeft = false;
      if (!defragFile(ctx, *file, extents, defragged)) return false;
      if (extents.size() == 1 && !defragged) {
        CDfrgConfig* config = config_;
        if (config != nullptr && config->doMoveBetterPlace()) {
          if (!moveToBetterPlace(ctx, *file, extents, movedBetter)) return false;
        }
        if (!movedBetter && ((config != nullptr && config->doMoveLeft()) || ctx.panicPass >= 0)) {
          if (!moveToLeftBorder(ctx, *file, extents, movedLeft)) return false;
        }
      }
      int changed = (defragged || movedBetter || movedLeft) ? 1 : 0;
      if (result != nullptr) *result = changed;
      if (stats != nullptr) {
        if (defragged) stats->addDefragged(1);
        if (movedLeft) stats->addMoved(1);
        if (movedBetter) stats->addMoved(1);
      }
      if (changed == 0) checkState(ctx);
    }
  } catch (const CDfrgException& e) {
    if (e.code == ErrorVolumeUnavailable || e.code == ErrorStopRequested) throw;
    if (!isSilentFileError(e.code)) {
      log.log(kLogError) << "Error during processFile." << LogProperty("Error", e.code)
                         << LogProperty("FileName", path);
    }
  }
  file.reset();
  if (stats != nullptr) stats->flush(false);
  currentFile_ = path;
  return true;
}

}  // namespace glidewell
