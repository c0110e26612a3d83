// FaultInjectingRegistry: a registry backend that forwards to another one and
// fails chosen calls, once or from then on, the way SQLite's test VFS fails
// its I/O. It also counts calls and open handles, so a test can see that a
// flush wrote nothing or that a key was closed.
#ifndef GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAULT_INJECTION_H_
#define GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAULT_INJECTION_H_

#include <memory>
#include <mutex>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "platform/registry_backend.h"
#include "platform/text.h"

namespace glidewell {
namespace test {

class FaultInjectingRegistry : public RegistryBackend {
 public:
  enum Op { kOpen, kCreate, kClose, kQuery, kSet, kEnumKey, kEnumValue, kDeleteValue, kDeleteKey, kOpCount };

  explicit FaultInjectingRegistry(std::shared_ptr<RegistryBackend> target) : target_(std::move(target)) {}

  // The next call of `op` whose key or value name is `name` (ignoring case;
  // empty: any name) fails with `error`; with `persistent`, every later one too.
  void fail(Op op, LONG error, bool persistent = false, const std::string& name = "") {
    std::lock_guard<std::mutex> g(mutex_);
    faults_.push_back(Fault{op, error, persistent, foldRegistryName(widen(name))});
  }
  void clearFaults() {
    std::lock_guard<std::mutex> g(mutex_);
    faults_.clear();
  }
  // Calls of `op` (kOpCount: of any operation) so far, failed ones included.
  int calls(Op op = kOpCount) {
    std::lock_guard<std::mutex> g(mutex_);
    return op == kOpCount ? std::accumulate(calls_, calls_ + kOpCount, 0) : calls_[op];
  }
  // Handles opened through this backend and not yet closed.
  size_t openHandles() {
    std::lock_guard<std::mutex> g(mutex_);
    return open_.size();
  }

  LONG openKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result) override {
    return opened(pass(kOpen, widen(name), [&] { return target_->openKey(parent, name, access, result); }), result);
  }
  LONG createKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result, bool* made) override {
    return opened(pass(kCreate, widen(name), [&] { return target_->createKey(parent, name, access, result, made); }),
                  result);
  }
  LONG closeKey(HKEY key) override {
    LONG r = pass(kClose, L"", [&] { return target_->closeKey(key); });
    std::lock_guard<std::mutex> g(mutex_);
    if (r == ERROR_SUCCESS) open_.erase(key);
    return r;
  }
  LONG queryValue(HKEY k, const std::wstring& n, DWORD* t, std::vector<BYTE>* d) override {
    return pass(kQuery, n, [&] { return target_->queryValue(k, n, t, d); });
  }
  LONG setValue(HKEY k, const std::wstring& n, DWORD t, const BYTE* d, DWORD size) override {
    return pass(kSet, n, [&] { return target_->setValue(k, n, t, d, size); });
  }
  LONG enumKey(HKEY k, DWORD i, std::string* n) override {
    return pass(kEnumKey, L"", [&] { return target_->enumKey(k, i, n); });
  }
  LONG enumValue(HKEY k, DWORD i, std::wstring* n) override {
    return pass(kEnumValue, L"", [&] { return target_->enumValue(k, i, n); });
  }
  LONG deleteValue(HKEY k, const std::wstring& n) override {
    return pass(kDeleteValue, n, [&] { return target_->deleteValue(k, n); });
  }
  LONG deleteKey(HKEY k, const std::string& n) override {
    return pass(kDeleteKey, widen(n), [&] { return target_->deleteKey(k, n); });
  }

 private:
  struct Fault {
    Op op;
    LONG error;
    bool persistent;
    std::wstring name;
  };
  // Counts the call, then fails it or makes it.
  template <typename Call>
  LONG pass(Op op, const std::wstring& name, Call call) {
    {
      std::lock_guard<std::mutex> g(mutex_);
      ++calls_[op];
      for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->op != op || (!it->name.empty() && it->name != foldRegistryName(name))) continue;
        LONG error = it->error;
        if (!it->persistent) faults_.erase(it);
        return error;
      }
    }
    return call();
  }
  LONG opened(LONG r, HKEY* result) {
    std::lock_guard<std::mutex> g(mutex_);
    if (r == ERROR_SUCCESS) open_.insert(*result);
    return r;
  }

  std::shared_ptr<RegistryBackend> target_;
  std::mutex mutex_;
  std::vector<Fault> faults_;
  int calls_[kOpCount] = {};
  std::set<HKEY> open_;
};

}  // namespace test
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAULT_INJECTION_H_
