// The system's registry on POSIX systems: the database in the install
// directory once dfrg_initialize has opened it, an in-memory registry before.
#include <mutex>

#include "platform/env.h"
#include "platform/posix/posix_env.h"
#include "platform/posix/registry_sqlite.h"

namespace glidewell {

namespace {

std::mutex& systemMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<RegistryBackend>& systemBackend() {
  static std::shared_ptr<RegistryBackend> backend;
  return backend;
}

}  // namespace

std::shared_ptr<RegistryBackend> RegistryBackend::system() {
  std::lock_guard<std::mutex> g(systemMutex());
  if (!systemBackend()) systemBackend() = newMemory();
  return systemBackend();
}

bool RegistryBackend::openSystem(std::string* error) {
  std::wstring dir = Env::current()->installDirectory();
  std::shared_ptr<RegistryBackend> backend;
  bool ok = true;
  if (!dir.empty()) {
    if (dir.back() != L'\\' && dir.back() != L'/') dir += L'\\';
    backend = openSqliteRegistry(posixPath(dir + L"registry.db"), error);
    ok = backend != nullptr;
  }
  if (!backend) backend = newMemory();
  std::lock_guard<std::mutex> g(systemMutex());
  systemBackend() = std::move(backend);
  return ok;
}

void RegistryBackend::closeSystem() {
  std::lock_guard<std::mutex> g(systemMutex());
  systemBackend().reset();
}

}  // namespace glidewell
