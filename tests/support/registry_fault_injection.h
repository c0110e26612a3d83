// FaultInjectingRegistry: a registry backend that forwards to another one and
// fails chosen calls, the way SQLite's test VFS fails the Nth call of an
// operation once or from then on. It also counts calls and open handles, so a
// test can see that a flush wrote nothing or that a key was closed.
#ifndef GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAULT_INJECTION_H_
#define GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAULT_INJECTION_H_

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/registry_backend.h"

namespace glidewell {
namespace test {

class FaultInjectingRegistry : public RegistryBackend {
 public:
  enum Op { kOpen, kCreate, kClose, kQuery, kSet, kEnumKey, kEnumValue, kDeleteValue, kDeleteKey, kOpCount };

  explicit FaultInjectingRegistry(std::shared_ptr<RegistryBackend> target);

  // Fails the nth (1-based) call of `op` from now on whose key or value name
  // equals `name` (ignoring case; empty: any name) with `error`; with
  // `persistent`, that call and every later matching one.
  void fail(Op op, LONG error, int nth = 1, bool persistent = false, const std::string& name = "");
  void clearFaults();
  // Calls of `op` so far, failed ones included.
  int calls(Op op);
  // Handles opened through this backend and not yet closed.
  size_t openHandles();

  LONG openKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result) override;
  LONG createKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result, bool* created) override;
  LONG closeKey(HKEY key) override;
  LONG queryValue(HKEY key, const std::wstring& name, DWORD* type, std::vector<BYTE>* data) override;
  LONG setValue(HKEY key, const std::wstring& name, DWORD type, const BYTE* data, DWORD size) override;
  LONG enumKey(HKEY key, DWORD index, std::string* name) override;
  LONG enumValue(HKEY key, DWORD index, std::wstring* name) override;
  LONG deleteValue(HKEY key, const std::wstring& name) override;
  LONG deleteKey(HKEY parent, const std::string& name) override;

 private:
  struct Fault {
    Op op;
    LONG error;
    int remaining;  // matching calls still to pass before the first failure
    bool persistent;
    std::wstring name;
  };
  // ERROR_SUCCESS when the call goes through, else the error to return.
  LONG check(Op op, const std::wstring& name);
  void opened(LONG r, HKEY* result);

  std::shared_ptr<RegistryBackend> target_;
  std::mutex mutex_;
  std::vector<Fault> faults_;
  int calls_[kOpCount] = {};
  std::set<HKEY> open_;
};

}  // namespace test
}  // namespace glidewell

#endif  // GLIDEWELL_TESTS_SUPPORT_REGISTRY_FAULT_INJECTION_H_
