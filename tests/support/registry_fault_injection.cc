#include "support/registry_fault_injection.h"

#include "platform/text.h"

namespace glidewell {
namespace test {

FaultInjectingRegistry::FaultInjectingRegistry(std::shared_ptr<RegistryBackend> target) : target_(std::move(target)) {}

void FaultInjectingRegistry::fail(Op op, LONG error, int nth, bool persistent, const std::string& name) {
  std::lock_guard<std::mutex> g(mutex_);
  faults_.push_back(Fault{op, error, nth - 1, persistent, foldRegistryName(widen(name))});
}

void FaultInjectingRegistry::clearFaults() {
  std::lock_guard<std::mutex> g(mutex_);
  faults_.clear();
}

int FaultInjectingRegistry::calls(Op op) {
  std::lock_guard<std::mutex> g(mutex_);
  return calls_[op];
}

size_t FaultInjectingRegistry::openHandles() {
  std::lock_guard<std::mutex> g(mutex_);
  return open_.size();
}

LONG FaultInjectingRegistry::check(Op op, const std::wstring& name) {
  std::lock_guard<std::mutex> g(mutex_);
  ++calls_[op];
  std::wstring folded = foldRegistryName(name);
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (it->op != op || (!it->name.empty() && it->name != folded)) continue;
    if (it->remaining > 0) {
      --it->remaining;
      continue;
    }
    LONG error = it->error;
    if (!it->persistent) faults_.erase(it);
    return error;
  }
  return ERROR_SUCCESS;
}

void FaultInjectingRegistry::opened(LONG r, HKEY* result) {
  if (r != ERROR_SUCCESS) return;
  std::lock_guard<std::mutex> g(mutex_);
  open_.insert(*result);
}

LONG FaultInjectingRegistry::openKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result) {
  LONG r = check(kOpen, widen(name));
  if (r == ERROR_SUCCESS) r = target_->openKey(parent, name, access, result);
  opened(r, result);
  return r;
}

LONG FaultInjectingRegistry::createKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result,
                                       bool* created) {
  LONG r = check(kCreate, widen(name));
  if (r == ERROR_SUCCESS) r = target_->createKey(parent, name, access, result, created);
  opened(r, result);
  return r;
}

LONG FaultInjectingRegistry::closeKey(HKEY key) {
  LONG r = check(kClose, L"");
  if (r != ERROR_SUCCESS) return r;
  r = target_->closeKey(key);
  if (r == ERROR_SUCCESS) {
    std::lock_guard<std::mutex> g(mutex_);
    open_.erase(key);
  }
  return r;
}

LONG FaultInjectingRegistry::queryValue(HKEY key, const std::wstring& name, DWORD* type, std::vector<BYTE>* data) {
  LONG r = check(kQuery, name);
  return r == ERROR_SUCCESS ? target_->queryValue(key, name, type, data) : r;
}

LONG FaultInjectingRegistry::setValue(HKEY key, const std::wstring& name, DWORD type, const BYTE* data, DWORD size) {
  LONG r = check(kSet, name);
  return r == ERROR_SUCCESS ? target_->setValue(key, name, type, data, size) : r;
}

LONG FaultInjectingRegistry::enumKey(HKEY key, DWORD index, std::string* name) {
  LONG r = check(kEnumKey, L"");
  return r == ERROR_SUCCESS ? target_->enumKey(key, index, name) : r;
}

LONG FaultInjectingRegistry::enumValue(HKEY key, DWORD index, std::wstring* name) {
  LONG r = check(kEnumValue, L"");
  return r == ERROR_SUCCESS ? target_->enumValue(key, index, name) : r;
}

LONG FaultInjectingRegistry::deleteValue(HKEY key, const std::wstring& name) {
  LONG r = check(kDeleteValue, name);
  return r == ERROR_SUCCESS ? target_->deleteValue(key, name) : r;
}

LONG FaultInjectingRegistry::deleteKey(HKEY parent, const std::string& name) {
  LONG r = check(kDeleteKey, widen(name));
  return r == ERROR_SUCCESS ? target_->deleteKey(parent, name) : r;
}

}  // namespace test
}  // namespace glidewell
