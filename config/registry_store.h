// Typed registry access: a store bound to one root key, and reference-counted
// key handles opened below it by paths whose components are separated by "\"
// or "/" ("SOFTWARE\quorvane/Quorvane Glidewell\settings"). An empty path names
// the parent key itself.
//
// Nothing here throws on a registry failure: opens give false or an invalid
// handle, getters give false and the default, setters give false. Each caller
// decides what a failure means.
//
// A store and its handles are used by one thread at a time; each user of the
// registry (settings, statistics, volume modes) has a store of its own. All
// handles must be released before their store is destroyed.
#ifndef GLIDEWELL_CONFIG_REGISTRY_STORE_H_
#define GLIDEWELL_CONFIG_REGISTRY_STORE_H_

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/registry_backend.h"
#include "platform/wintypes.h"

namespace glidewell {

class CRegistryKey;

// One open key of a store, shared by every handle copied from the first.
struct RegistryKeyRecord {
  HKEY hkey;
  uint32_t refCount;
  std::string name;  // the last component of the path it was opened with
};

class CRegistryStore {
 public:
  // Binds to `root` (a predefined key, neither owned nor closed) in `backend`,
  // by default RegistryBackend::current().
  explicit CRegistryStore(HKEY root, std::shared_ptr<RegistryBackend> backend = nullptr);
  virtual ~CRegistryStore();
  CRegistryStore(const CRegistryStore&) = delete;
  CRegistryStore& operator=(const CRegistryStore&) = delete;

  // Opens `path` below `parent`'s key, or below the root when `parent` is null
  // (or invalid), creating missing components when `create` is set. On success
  // `key` receives a new handle and the result is true; on failure `key` is
  // reset and the result is false.
  bool openKey(const std::string& path, std::unique_ptr<CRegistryKey>& key, REGSAM access,
               const CRegistryKey* parent, bool create);
  // The same, as a handle that is invalid when the open failed.
  CRegistryKey key(const std::string& path, REGSAM access, bool create);

  // The number of open-key records (for tests and leak checks).
  size_t openKeyCount() const { return openKeys_.size(); }
  HKEY root() const { return root_; }

 private:
  friend class CRegistryKey;

  // Opens each component in turn, closing the intermediate keys. The final
  // HKEY is recorded; null when any component fails.
  RegistryKeyRecord* open(const std::string& path, REGSAM access, HKEY parent, bool create);
  // Drops one reference; the last one closes the HKEY and removes the record.
  void release(RegistryKeyRecord* record);

  std::list<RegistryKeyRecord> openKeys_;  // a list: records never move while handles point at them
  HKEY root_;
  std::shared_ptr<RegistryBackend> backend_;
};

class CRegistryKey {
 public:
  // An invalid handle.
  CRegistryKey() = default;
  CRegistryKey(const CRegistryKey& other);
  CRegistryKey(CRegistryKey&& other) noexcept;
  CRegistryKey& operator=(const CRegistryKey& other);
  CRegistryKey& operator=(CRegistryKey&& other) noexcept;
  virtual ~CRegistryKey();

  // False for a handle that refers to nothing: an open that failed, or an
  // enumeration index past the end. Every operation on it fails at once,
  // touching neither the registry nor the getters' output.
  bool isValid() const { return !invalid_; }
  // The key's own name (the last component of the path it was opened with).
  std::string name() const { return invalid_ ? std::string() : record_->name; }

  bool openSubKey(const std::string& name, std::unique_ptr<CRegistryKey>& key, REGSAM access, bool create) const;
  CRegistryKey subKey(const std::string& name, REGSAM access, bool create) const;
  // The index-th subkey in enumeration order; invalid past the end.
  CRegistryKey subKeyAt(DWORD index, REGSAM access) const;

  // REG_DWORD only.
  bool getDword(const std::string& name, DWORD& out, DWORD def) const;
  bool getDword(const std::wstring& name, DWORD& out, DWORD def) const;
  // REG_QWORD; the narrow-name form also takes a REG_BINARY of exactly 8 bytes.
  bool getQword(const std::string& name, uint64_t& out, uint64_t def) const;
  bool getQword(const std::wstring& name, uint64_t& out, uint64_t def) const;
  // REG_SZ; the text ends at the first NUL.
  bool getString(const std::wstring& name, std::wstring& out, const std::wstring& def) const;

  bool setDword(const std::string& name, DWORD v);
  bool setDword(const std::wstring& name, DWORD v);
  bool setQword(const std::string& name, uint64_t v);
  bool setQword(const std::wstring& name, uint64_t v);
  // REG_SZ of (length + 1) x 2 bytes, the terminating NUL included.
  bool setString(const std::wstring& name, const std::wstring& v);

  // The name of the index-th value in enumeration order; an empty name counts
  // as failure.
  bool valueNameAt(DWORD index, std::wstring& name) const;
  bool deleteValueAt(DWORD index);
  bool deleteSubKey(const std::string& name);

 private:
  friend class CRegistryStore;
  CRegistryKey(RegistryKeyRecord* record, CRegistryStore* store);

  void release();
  HKEY hkey() const { return record_->hkey; }
  RegistryBackend& backend() const { return *store_->backend_; }
  bool query(const std::wstring& name, DWORD* type, std::vector<BYTE>* data) const;
  bool set(const std::wstring& name, DWORD type, const BYTE* data, DWORD size);

  RegistryKeyRecord* record_ = nullptr;
  CRegistryStore* store_ = nullptr;
  bool invalid_ = true;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CONFIG_REGISTRY_STORE_H_
