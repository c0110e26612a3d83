#include "config/registry_store.h"

#include <cstring>

#include "platform/text.h"

namespace glidewell {

namespace {

std::vector<BYTE> littleEndian(uint64_t v, size_t bytes) {
  std::vector<BYTE> out(bytes);
  for (size_t i = 0; i < bytes; ++i) out[i] = static_cast<BYTE>(v >> (8 * i));
  return out;
}

uint64_t fromLittleEndian(const std::vector<BYTE>& data) {
  uint64_t v = 0;
  for (size_t i = data.size(); i-- > 0;) v = (v << 8) | data[i];
  return v;
}

}  // namespace

// --- CRegistryStore ---

CRegistryStore::CRegistryStore(HKEY root, std::shared_ptr<RegistryBackend> backend)
    : root_(root), backend_(backend ? std::move(backend) : RegistryBackend::current()) {}

CRegistryStore::~CRegistryStore() {
  // Only records whose handles were (wrongly) kept are left; their keys are
  // closed so that nothing stays open in the backend.
  for (RegistryKeyRecord& record : openKeys_) backend_->closeKey(record.hkey);
}

RegistryKeyRecord* CRegistryStore::open(const std::string& path, REGSAM access, HKEY parent, bool create) {
  HKEY current = parent;
  bool ownsCurrent = false;
  size_t start = 0;
  std::string component;
  for (;;) {
    size_t end = path.find_first_of("\\/", start);
    component = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
    HKEY next = nullptr;
    LONG r = backend_->openKey(current, component, access, &next);
    if (r != ERROR_SUCCESS && create) r = backend_->createKey(current, component, access, &next, nullptr);
    if (ownsCurrent) backend_->closeKey(current);
    if (r != ERROR_SUCCESS) return nullptr;
    current = next;
    ownsCurrent = true;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  openKeys_.push_back(RegistryKeyRecord{current, 0, component});
  return &openKeys_.back();
}

bool CRegistryStore::openKey(const std::string& path, std::unique_ptr<CRegistryKey>& key, REGSAM access,
                             const CRegistryKey* parent, bool create) {
  key.reset();
  CRegistryKey k = parent != nullptr && parent->isValid() ? parent->subKey(path, access, create)
                                                          : this->key(path, access, create);
  if (!k.isValid()) return false;
  key = std::make_unique<CRegistryKey>(std::move(k));
  return true;
}

CRegistryKey CRegistryStore::key(const std::string& path, REGSAM access, bool create) {
  RegistryKeyRecord* record = open(path, access, root_, create);
  return record != nullptr ? CRegistryKey(record, this) : CRegistryKey();
}

void CRegistryStore::release(RegistryKeyRecord* record) {
  if (--record->refCount != 0) return;
  backend_->closeKey(record->hkey);
  openKeys_.remove_if([record](const RegistryKeyRecord& r) { return &r == record; });
}

// --- CRegistryKey: handle bookkeeping ---

CRegistryKey::CRegistryKey(RegistryKeyRecord* record, CRegistryStore* store)
    : record_(record), store_(store), invalid_(false) {
  ++record_->refCount;
}

CRegistryKey::CRegistryKey(const CRegistryKey& other)
    : record_(other.record_), store_(other.store_), invalid_(other.invalid_) {
  if (!invalid_) ++record_->refCount;
}

CRegistryKey::CRegistryKey(CRegistryKey&& other) noexcept
    : record_(other.record_), store_(other.store_), invalid_(other.invalid_) {
  other.record_ = nullptr;
  other.store_ = nullptr;
  other.invalid_ = true;
}

CRegistryKey& CRegistryKey::operator=(const CRegistryKey& other) {
  if (this != &other) {
    if (!other.invalid_) ++other.record_->refCount;  // first, in case both share the record
    release();
    record_ = other.record_;
    store_ = other.store_;
    invalid_ = other.invalid_;
  }
  return *this;
}

CRegistryKey& CRegistryKey::operator=(CRegistryKey&& other) noexcept {
  if (this != &other) {
    release();
    record_ = other.record_;
    store_ = other.store_;
    invalid_ = other.invalid_;
    other.record_ = nullptr;
    other.store_ = nullptr;
    other.invalid_ = true;
  }
  return *this;
}

CRegistryKey::~CRegistryKey() { release(); }

void CRegistryKey::release() {
  if (!invalid_) store_->release(record_);
  record_ = nullptr;
  store_ = nullptr;
  invalid_ = true;
}

// --- Subkeys ---

bool CRegistryKey::openSubKey(const std::string& name, std::unique_ptr<CRegistryKey>& key, REGSAM access,
                              bool create) const {
  key.reset();
  CRegistryKey k = subKey(name, access, create);
  if (!k.isValid()) return false;
  key = std::make_unique<CRegistryKey>(std::move(k));
  return true;
}

CRegistryKey CRegistryKey::subKey(const std::string& name, REGSAM access, bool create) const {
  if (invalid_) return CRegistryKey();
  RegistryKeyRecord* record = store_->open(name, access, hkey(), create);
  return record != nullptr ? CRegistryKey(record, store_) : CRegistryKey();
}

CRegistryKey CRegistryKey::subKeyAt(DWORD index, REGSAM access) const {
  if (invalid_) return CRegistryKey();
  std::string name;
  if (backend().enumKey(hkey(), index, &name) != ERROR_SUCCESS) return CRegistryKey();
  // The enumerated name is one component even if it holds a "/".
  HKEY opened = nullptr;
  if (backend().openKey(hkey(), name, access, &opened) != ERROR_SUCCESS) return CRegistryKey();
  store_->openKeys_.push_back(RegistryKeyRecord{opened, 0, name});
  return CRegistryKey(&store_->openKeys_.back(), store_);
}

bool CRegistryKey::deleteSubKey(const std::string& name) {
  return !invalid_ && backend().deleteKey(hkey(), name) == ERROR_SUCCESS;
}

// --- Values ---

bool CRegistryKey::query(const std::wstring& name, DWORD* type, std::vector<BYTE>* data) const {
  return backend().queryValue(hkey(), name, type, data) == ERROR_SUCCESS;
}

bool CRegistryKey::set(const std::wstring& name, DWORD type, const BYTE* data, DWORD size) {
  return !invalid_ && backend().setValue(hkey(), name, type, data, size) == ERROR_SUCCESS;
}

bool CRegistryKey::getDword(const std::string& name, DWORD& out, DWORD def) const {
  return getDword(widen(name), out, def);
}

bool CRegistryKey::getDword(const std::wstring& name, DWORD& out, DWORD def) const {
  if (invalid_) return false;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
  if (query(name, &type, &data) && type == REG_DWORD && data.size() == 4) {
    out = static_cast<DWORD>(fromLittleEndian(data));
    return true;
  }
  out = def;
  return false;
}

bool CRegistryKey::getQword(const std::string& name, uint64_t& out, uint64_t def) const {
  if (invalid_) return false;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
  // The narrow form reads eight bytes of any of the two types, as older
  // writers stored 64-bit counters as REG_BINARY.
  if (query(widen(name), &type, &data) && (type == REG_QWORD || type == REG_BINARY) && data.size() == 8) {
    out = fromLittleEndian(data);
    return true;
  }
  out = def;
  return false;
}

bool CRegistryKey::getQword(const std::wstring& name, uint64_t& out, uint64_t def) const {
  if (invalid_) return false;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
  if (query(name, &type, &data) && type == REG_QWORD && data.size() == 8) {
    out = fromLittleEndian(data);
    return true;
  }
  out = def;
  return false;
}

bool CRegistryKey::getString(const std::wstring& name, std::wstring& out, const std::wstring& def) const {
  if (invalid_) return false;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
  if (!query(name, &type, &data) || type != REG_SZ) {
    out = def;
    return false;
  }
  // UTF-16LE; a stray odd byte and everything from the first NUL on are dropped.
  std::u16string units;
  for (size_t i = 0; i + 1 < data.size(); i += 2) {
    char16_t u = static_cast<char16_t>(data[i] | (data[i + 1] << 8));
    if (u == 0) break;
    units.push_back(u);
  }
  out = fromUtf16(units);
  return true;
}

bool CRegistryKey::setDword(const std::string& name, DWORD v) { return setDword(widen(name), v); }

bool CRegistryKey::setDword(const std::wstring& name, DWORD v) {
  std::vector<BYTE> data = littleEndian(v, 4);
  return set(name, REG_DWORD, data.data(), 4);
}

bool CRegistryKey::setQword(const std::string& name, uint64_t v) { return setQword(widen(name), v); }

bool CRegistryKey::setQword(const std::wstring& name, uint64_t v) {
  std::vector<BYTE> data = littleEndian(v, 8);
  return set(name, REG_QWORD, data.data(), 8);
}

bool CRegistryKey::setString(const std::wstring& name, const std::wstring& v) {
  std::u16string units = toUtf16(v);
  units.push_back(u'\0');
  std::vector<BYTE> data;
  data.reserve(units.size() * 2);
  for (char16_t u : units) {
    data.push_back(static_cast<BYTE>(u & 0xFF));
    data.push_back(static_cast<BYTE>(u >> 8));
  }
  return set(name, REG_SZ, data.data(), static_cast<DWORD>(data.size()));
}

bool CRegistryKey::valueNameAt(DWORD index, std::wstring& name) const {
  if (invalid_) return false;
  std::wstring found;
  if (backend().enumValue(hkey(), index, &found) != ERROR_SUCCESS || found.empty()) return false;
  name = found;
  return true;
}

bool CRegistryKey::deleteValueAt(DWORD index) {
  std::wstring name;
  return valueNameAt(index, name) && backend().deleteValue(hkey(), name) == ERROR_SUCCESS;
}

}  // namespace glidewell
