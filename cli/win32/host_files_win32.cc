// The host's files on Windows: install directories below the user's local
// application data, and atomic replacement through MoveFileEx.
#include <windows.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <system_error>

#include "cli/host_files.h"
#include "platform/text.h"

namespace glidewell {

namespace fs = std::filesystem;

namespace {

std::string reason(DWORD error) { return std::system_category().message(static_cast<int>(error)); }

// A handle closed on every path out.
class Handle {
 public:
  explicit Handle(HANDLE h) : h_(h) {}
  ~Handle() { close(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  HANDLE get() const { return h_; }
  bool close() {
    bool ok = h_ == INVALID_HANDLE_VALUE || CloseHandle(h_) != 0;
    h_ = INVALID_HANDLE_VALUE;
    return ok;
  }

 private:
  HANDLE h_;
};

}  // namespace

std::string asDirectory(const std::string& path) {
  std::error_code ec;
  fs::path p = fs::absolute(path.empty() ? fs::path(".") : fs::path(widen(path)), ec);
  if (ec) throw HostError("cannot resolve directory " + path + ": " + ec.message());
  std::string s = narrow(p.lexically_normal().make_preferred().wstring());
  while (s.size() > 3 && (s.back() == '\\' || s.back() == '/')) s.pop_back();
  return s.back() == '\\' ? s : s + "\\";
}

std::string resolveInstallDirectory(const std::string& option) {
  if (!option.empty()) return asDirectory(option);
  for (const char* variable : {"GLIDEWELL_HOME", "LOCALAPPDATA", "USERPROFILE"}) {
    const char* value = std::getenv(variable);
    if (value == nullptr || *value == '\0') continue;
    std::string dir = value;
    return asDirectory(std::string(variable) == "GLIDEWELL_HOME" ? dir : dir + "\\Glidewell");
  }
  throw HostError("no install directory: give --dir, or set GLIDEWELL_HOME or LOCALAPPDATA");
}

void prepareDirectory(const std::string& dir) {
  std::error_code ec;
  fs::create_directories(fs::path(widen(dir)), ec);
  if (ec) throw HostError("cannot create directory " + dir + ": " + ec.message());
  if (!fs::is_directory(fs::path(widen(dir)), ec)) throw HostError(dir + " is not a directory");
  std::wstring probe = widen(asDirectory(dir)) + L".glidewell-write-test";
  Handle h(CreateFileW(probe.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  if (h.get() == INVALID_HANDLE_VALUE) throw HostError("cannot write in directory " + dir + ": " + reason(GetLastError()));
}

std::string makeTemporaryDirectory(const std::string& prefix) {
  std::error_code ec;
  fs::path base = fs::temp_directory_path(ec);
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    fs::path dir = base / widen(prefix + std::to_string(random()));
    if (fs::create_directory(dir, ec)) return narrow(dir.wstring()) + "\\";
  }
  throw HostError("cannot create a temporary directory in " + narrow(base.wstring()));
}

bool pathExists(const std::string& path) {
  return GetFileAttributesW(widen(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool isRegularFile(const std::string& path) {
  DWORD attributes = GetFileAttributesW(widen(path).c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

std::vector<uint8_t> readWholeFile(const std::string& path) {
  Handle h(CreateFileW(widen(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  if (h.get() == INVALID_HANDLE_VALUE) throw HostError("cannot open " + path + ": " + reason(GetLastError()));
  LARGE_INTEGER size;
  if (!GetFileSizeEx(h.get(), &size)) throw HostError("cannot read " + path + ": " + reason(GetLastError()));
  std::vector<uint8_t> bytes;
  bytes.reserve(static_cast<size_t>(size.QuadPart));
  uint8_t chunk[1 << 16];
  for (;;) {
    DWORD n = 0;
    if (!ReadFile(h.get(), chunk, sizeof chunk, &n, nullptr)) {
      throw HostError("cannot read " + path + ": " + reason(GetLastError()));
    }
    if (n == 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  return bytes;
}

void writeFileAtomically(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::string temp = path + ".tmp";
  std::wstring wtemp = widen(temp);
  Handle h(CreateFileW(wtemp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (h.get() == INVALID_HANDLE_VALUE) throw HostError("cannot create " + temp + ": " + reason(GetLastError()));
  auto fail = [&](const std::string& what) {
    DWORD error = GetLastError();
    h.close();
    DeleteFileW(wtemp.c_str());
    throw HostError(what + " " + temp + ": " + reason(error));
  };
  size_t done = 0;
  while (done < bytes.size()) {
    DWORD n = 0;
    DWORD want = static_cast<DWORD>(std::min<size_t>(bytes.size() - done, 1u << 24));
    if (!WriteFile(h.get(), bytes.data() + done, want, &n, nullptr)) fail("cannot write");
    done += n;
  }
  if (!FlushFileBuffers(h.get())) fail("cannot flush");
  if (!h.close()) fail("cannot close");
  if (!MoveFileExW(wtemp.c_str(), widen(path).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    DWORD error = GetLastError();
    DeleteFileW(wtemp.c_str());
    throw HostError("cannot replace " + path + ": " + reason(error));
  }
}

void copyFileAtomically(const std::string& from, const std::string& to) {
  writeFileAtomically(to, readWholeFile(from));
}

void removeFile(const std::string& path) {
  if (!DeleteFileW(widen(path).c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND) {
    throw HostError("cannot remove " + path + ": " + reason(GetLastError()));
  }
}

}  // namespace glidewell
