// The in-memory registry: a tree of keys held in maps ordered by folded name,
// which gives the case-insensitive enumeration order for free. One mutex
// guards the whole tree; registry calls are short.
#include <map>
#include <mutex>
#include <unordered_map>

#include "platform/registry_backend.h"
#include "platform/registry_portable.h"
#include "platform/text.h"

namespace glidewell {

namespace {

using namespace registry_portable;

struct MemoryValue {
  std::wstring name;  // spelling of the first write
  DWORD type;
  std::vector<BYTE> data;
};

struct MemoryKey {
  std::string name;
  std::map<std::wstring, std::shared_ptr<MemoryKey>> subkeys;  // by folded name
  std::map<std::wstring, MemoryValue> values;                   // by folded name
  bool deleted = false;  // open handles onto a deleted key see ERROR_KEY_DELETED
};

class MemoryRegistry : public RegistryBackend {
 public:
  MemoryRegistry() {
    for (auto& root : roots_) root = std::make_shared<MemoryKey>();
  }

  LONG openKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result) override {
    std::lock_guard<std::mutex> g(mutex_);
    return open(parent, name, access, false, result, nullptr);
  }

  LONG createKey(HKEY parent, const std::string& name, REGSAM access, HKEY* result, bool* created) override {
    std::lock_guard<std::mutex> g(mutex_);
    return open(parent, name, access, true, result, created);
  }

  LONG closeKey(HKEY key) override {
    std::lock_guard<std::mutex> g(mutex_);
    if (rootIndex(key) >= 0) return ERROR_SUCCESS;
    return handles_.erase(reinterpret_cast<uintptr_t>(key)) != 0 ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
  }

  LONG queryValue(HKEY key, const std::wstring& name, DWORD* type, std::vector<BYTE>* data) override {
    std::lock_guard<std::mutex> g(mutex_);
    MemoryKey* k = nullptr;
    LONG r = resolve(key, kNeedQuery, &k);
    if (r != ERROR_SUCCESS) return r;
    auto it = k->values.find(foldRegistryName(name));
    if (it == k->values.end()) return ERROR_FILE_NOT_FOUND;
    *type = it->second.type;
    *data = it->second.data;
    return ERROR_SUCCESS;
  }

  LONG setValue(HKEY key, const std::wstring& name, DWORD type, const BYTE* data, DWORD size) override {
    std::lock_guard<std::mutex> g(mutex_);
    MemoryKey* k = nullptr;
    LONG r = resolve(key, kNeedSet, &k);
    if (r != ERROR_SUCCESS) return r;
    MemoryValue& v = k->values[foldRegistryName(name)];
    if (v.name.empty()) v.name = name;
    v.type = type;
    v.data.assign(data, data + size);
    return ERROR_SUCCESS;
  }

  LONG enumKey(HKEY key, DWORD index, std::string* name) override {
    std::lock_guard<std::mutex> g(mutex_);
    MemoryKey* k = nullptr;
    LONG r = resolve(key, kNeedEnumKeys, &k);
    if (r != ERROR_SUCCESS) return r;
    if (index >= k->subkeys.size()) return ERROR_NO_MORE_ITEMS;
    *name = std::next(k->subkeys.begin(), index)->second->name;
    return ERROR_SUCCESS;
  }

  LONG enumValue(HKEY key, DWORD index, std::wstring* name) override {
    std::lock_guard<std::mutex> g(mutex_);
    MemoryKey* k = nullptr;
    LONG r = resolve(key, kNeedQuery, &k);
    if (r != ERROR_SUCCESS) return r;
    if (index >= k->values.size()) return ERROR_NO_MORE_ITEMS;
    *name = std::next(k->values.begin(), index)->second.name;
    return ERROR_SUCCESS;
  }

  LONG deleteValue(HKEY key, const std::wstring& name) override {
    std::lock_guard<std::mutex> g(mutex_);
    MemoryKey* k = nullptr;
    LONG r = resolve(key, kNeedSet, &k);
    if (r != ERROR_SUCCESS) return r;
    return k->values.erase(foldRegistryName(name)) != 0 ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
  }

  LONG deleteKey(HKEY parent, const std::string& name) override {
    std::lock_guard<std::mutex> g(mutex_);
    MemoryKey* k = nullptr;
    LONG r = resolve(parent, 0, &k);
    if (r != ERROR_SUCCESS) return r;
    if (name.empty() || !validKeyName(name)) return ERROR_INVALID_PARAMETER;
    auto it = k->subkeys.find(foldRegistryName(widen(name)));
    if (it == k->subkeys.end()) return ERROR_FILE_NOT_FOUND;
    if (!it->second->subkeys.empty()) return ERROR_ACCESS_DENIED;
    it->second->deleted = true;
    it->second->values.clear();
    k->subkeys.erase(it);
    return ERROR_SUCCESS;
  }

 private:
  struct OpenKey {
    std::shared_ptr<MemoryKey> key;
    REGSAM access;
  };

  // The key behind a handle, when the handle has the rights `need`.
  LONG resolve(HKEY handle, REGSAM need, MemoryKey** out) {
    int root = rootIndex(handle);
    if (root >= 0) {
      *out = roots_[root].get();
      return ERROR_SUCCESS;
    }
    auto it = handles_.find(reinterpret_cast<uintptr_t>(handle));
    if (it == handles_.end()) return ERROR_INVALID_HANDLE;
    if (it->second.key->deleted) return ERROR_KEY_DELETED;
    if (!allows(it->second.access, need)) return ERROR_ACCESS_DENIED;
    *out = it->second.key.get();
    return ERROR_SUCCESS;
  }

  std::shared_ptr<MemoryKey> shared(HKEY handle) {
    int root = rootIndex(handle);
    return root >= 0 ? roots_[root] : handles_.at(reinterpret_cast<uintptr_t>(handle)).key;
  }

  LONG open(HKEY parent, const std::string& name, REGSAM access, bool create, HKEY* result, bool* created) {
    if (created != nullptr) *created = false;
    MemoryKey* p = nullptr;
    LONG r = resolve(parent, 0, &p);
    if (r != ERROR_SUCCESS) return r;
    if (!validKeyName(name)) return ERROR_INVALID_PARAMETER;
    std::shared_ptr<MemoryKey> target;
    if (name.empty()) {
      target = shared(parent);
    } else {
      std::wstring folded = foldRegistryName(widen(name));
      auto it = p->subkeys.find(folded);
      if (it != p->subkeys.end()) {
        target = it->second;
      } else if (!create) {
        return ERROR_FILE_NOT_FOUND;
      } else {
        if (rootIndex(parent) < 0 && !allows(handles_[reinterpret_cast<uintptr_t>(parent)].access, kNeedCreate)) {
          return ERROR_ACCESS_DENIED;
        }
        target = std::make_shared<MemoryKey>();
        target->name = name;
        p->subkeys.emplace(folded, target);
        if (created != nullptr) *created = true;
      }
    }
    HKEY h = handleFromNumber(nextHandle_++);
    handles_[reinterpret_cast<uintptr_t>(h)] = OpenKey{std::move(target), access};
    *result = h;
    return ERROR_SUCCESS;
  }

  std::mutex mutex_;
  std::shared_ptr<MemoryKey> roots_[kRootCount];
  std::unordered_map<uintptr_t, OpenKey> handles_;
  uintptr_t nextHandle_ = 0;
};

}  // namespace

std::shared_ptr<RegistryBackend> RegistryBackend::newMemory() { return std::make_shared<MemoryRegistry>(); }

}  // namespace glidewell
