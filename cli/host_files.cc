#include "cli/host_files.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace glidewell {

namespace fs = std::filesystem;

namespace {

std::string reason(int error) { return std::strerror(error); }

// An open descriptor, closed on every path out.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  // Closes now, so that a failing close is seen (it may report a lost write).
  int close() {
    int rc = ::close(fd_);
    fd_ = -1;
    return rc;
  }

 private:
  int fd_;
};

}  // namespace

std::string asDirectory(const std::string& path) {
  std::error_code ec;
  fs::path p = fs::absolute(path.empty() ? fs::path(".") : fs::path(path), ec);
  if (ec) throw HostError("cannot resolve directory " + path + ": " + ec.message());
  std::string s = p.lexically_normal().string();
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  if (s.find('\\') != std::string::npos) {
    // The engine forms its paths with "\" and the system layer turns every
    // "\" into "/", so such a name would not survive the round trip.
    throw HostError("install directory " + s + " contains a backslash, which the engine cannot use");
  }
  return s == "/" ? s : s + "/";
}

std::string resolveInstallDirectory(const std::string& option) {
  if (!option.empty()) return asDirectory(option);
  const char* home = std::getenv("GLIDEWELL_HOME");
  if (home != nullptr && *home != '\0') return asDirectory(home);
  const char* user = std::getenv("HOME");
  if (user == nullptr || *user == '\0') {
    throw HostError("no install directory: give --dir, or set GLIDEWELL_HOME or HOME");
  }
  return asDirectory(std::string(user) + "/.glidewell");
}

void prepareDirectory(const std::string& dir) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) throw HostError("cannot create directory " + dir + ": " + ec.message());
  if (!fs::is_directory(dir, ec)) throw HostError(dir + " is not a directory");
  std::string probe = asDirectory(dir) + ".glidewell-write-test";
  int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw HostError("cannot write in directory " + dir + ": " + reason(errno));
  ::close(fd);
  ::unlink(probe.c_str());
}

std::string makeTemporaryDirectory(const std::string& prefix) {
  std::error_code ec;
  fs::path base = fs::temp_directory_path(ec);
  if (ec) base = "/tmp";
  std::string pattern = (base / (prefix + "XXXXXX")).string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) {
    throw HostError("cannot create a temporary directory in " + base.string() + ": " + reason(errno));
  }
  return std::string(buffer.data()) + "/";
}

bool pathExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool isRegularFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::vector<uint8_t> readWholeFile(const std::string& path) {
  Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) throw HostError("cannot open " + path + ": " + reason(errno));
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) throw HostError("cannot read " + path + ": " + reason(errno));
  if (!S_ISREG(st.st_mode)) throw HostError(path + " is not a regular file");
  std::vector<uint8_t> bytes;
  bytes.reserve(static_cast<size_t>(st.st_size));
  uint8_t chunk[1 << 16];
  for (;;) {
    ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw HostError("cannot read " + path + ": " + reason(errno));
    }
    if (n == 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  return bytes;
}

void writeFileAtomically(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::string temp = path + ".tmp";
  Fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (fd.get() < 0) throw HostError("cannot create " + temp + ": " + reason(errno));
  auto fail = [&](const std::string& what, int error) {
    ::unlink(temp.c_str());
    throw HostError(what + " " + temp + ": " + reason(error));
  };
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail("cannot write", errno);
    }
    done += static_cast<size_t>(n);
  }
  if (::fsync(fd.get()) != 0) fail("cannot flush", errno);
  if (fd.close() != 0) fail("cannot close", errno);
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    int error = errno;
    ::unlink(temp.c_str());
    throw HostError("cannot replace " + path + ": " + reason(error));
  }
}

void copyFileAtomically(const std::string& from, const std::string& to) {
  writeFileAtomically(to, readWholeFile(from));
}

void removeFile(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    throw HostError("cannot remove " + path + ": " + reason(errno));
  }
}

}  // namespace glidewell
