#include "platform/posix/registry_sqlite.h"

#include <sqlite3.h>

#include <mutex>
#include <unordered_map>

#include "platform/registry_portable.h"
#include "platform/text.h"

#ifndef ERROR_BADDB
#define ERROR_BADDB 1009L
#endif

namespace glidewell {

namespace {

using namespace registry_portable;

// Marks a database as ours ("GLRG"), so a stray SQLite file is never taken over.
constexpr int kApplicationId = 0x474C5247;
constexpr int kSchemaVersion = 1;
// How long a write waits for a reader or another writer holding the file.
constexpr int kBusyTimeoutMs = 5000;

// Root keys have the ids 1..4 and parent 0.
int64_t rootId(int index) { return index + 1; }

const char* const kSchema =
    "CREATE TABLE registry_keys("
    "  id INTEGER PRIMARY KEY AUTOINCREMENT,"  // never reused: a stale handle never finds a new key
    "  parent INTEGER NOT NULL,"
    "  name TEXT NOT NULL,"
    "  fold TEXT NOT NULL,"
    "  UNIQUE(parent, fold));"
    "CREATE TABLE registry_values("
    "  key INTEGER NOT NULL,"
    "  name TEXT NOT NULL,"
    "  fold TEXT NOT NULL,"
    "  type INTEGER NOT NULL,"
    "  data BLOB NOT NULL,"
    "  PRIMARY KEY(key, fold)) WITHOUT ROWID;";

LONG win32Error(int rc) {
  switch (rc & 0xFF) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return ERROR_SHARING_VIOLATION;
    case SQLITE_FULL: return ERROR_DISK_FULL;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_CANTOPEN: return ERROR_ACCESS_DENIED;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB: return ERROR_BADDB;
    case SQLITE_NOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    default: return ERROR_WRITE_FAULT;
  }
}

struct DbClose {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StmtFinalize {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Db = std::unique_ptr<sqlite3, DbClose>;
using StmtPtr = std::unique_ptr<sqlite3_stmt, StmtFinalize>;

// One use of a cached statement: bound on the way in, reset on the way out.
class Query {
 public:
  // A null statement (one that could not be prepared) fails every step.
  explicit Query(sqlite3_stmt* s) : s_(s) {}
  ~Query() {
    if (s_ == nullptr) return;
    sqlite3_reset(s_);
    sqlite3_clear_bindings(s_);
  }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  Query& bind(int i, int64_t v) {
    if (s_ != nullptr) sqlite3_bind_int64(s_, i, v);
    return *this;
  }
  Query& bind(int i, const std::string& v) {
    if (s_ != nullptr) sqlite3_bind_text(s_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Query& bindBlob(int i, const BYTE* data, DWORD size) {
    // A zero-length blob still has to be a blob, not NULL.
    if (s_ == nullptr) return *this;
    sqlite3_bind_blob(s_, i, size != 0 ? static_cast<const void*>(data) : "", static_cast<int>(size),
                      SQLITE_TRANSIENT);
    return *this;
  }
  // SQLITE_ROW, SQLITE_DONE or an error.
  int step() { return s_ != nullptr ? sqlite3_step(s_) : SQLITE_ERROR; }
  int64_t int64(int col) { return sqlite3_column_int64(s_, col); }
  std::string text(int col) {
    const unsigned char* t = sqlite3_column_text(s_, col);
    return t != nullptr ? std::string(reinterpret_cast<const char*>(t), sqlite3_column_bytes(s_, col)) : std::string();
  }
  std::vector<BYTE> blob(int col) {
    const BYTE* b = static_cast<const BYTE*>(sqlite3_column_blob(s_, col));
    return b != nullptr ? std::vector<BYTE>(b, b + sqlite3_column_bytes(s_, col)) : std::vector<BYTE>();
  }

 private:
  sqlite3_stmt* s_;
};

std::string foldNarrow(const std::string& name) { return narrow(foldRegistryName(widen(name))); }

class SqliteRegistry : public RegistryBackend {
 public:
  explicit SqliteRegistry(Db db) : db_(std::move(db)) {}

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
    int64_t id;
    LONG r = resolve(key, kNeedQuery, &id);
    if (r != ERROR_SUCCESS) return r;
    Query q(stmt("SELECT type, data FROM registry_values WHERE key = ?1 AND fold = ?2"));
    q.bind(1, id).bind(2, narrow(foldRegistryName(name)));
    int rc = q.step();
    if (rc == SQLITE_ROW) {
      *type = static_cast<DWORD>(q.int64(0));
      *data = q.blob(1);
      return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? missing(id, ERROR_FILE_NOT_FOUND) : win32Error(rc);
  }

  LONG setValue(HKEY key, const std::wstring& name, DWORD type, const BYTE* data, DWORD size) override {
    std::lock_guard<std::mutex> g(mutex_);
    int64_t id;
    LONG r = resolve(key, kNeedSet, &id);
    if (r != ERROR_SUCCESS) return r;
    // One statement, so one transaction: the value is replaced whole or not at
    // all, and never lands in a key that another handle deleted meanwhile.
    Query q(stmt(
        "INSERT INTO registry_values(key, name, fold, type, data)"
        " SELECT ?1, ?2, ?3, ?4, ?5 WHERE EXISTS(SELECT 1 FROM registry_keys WHERE id = ?1)"
        " ON CONFLICT(key, fold) DO UPDATE SET type = excluded.type, data = excluded.data"));
    q.bind(1, id).bind(2, narrow(name)).bind(3, narrow(foldRegistryName(name))).bind(4, type).bindBlob(5, data, size);
    int rc = q.step();
    if (rc != SQLITE_DONE) return win32Error(rc);
    return sqlite3_changes(db_.get()) != 0 ? ERROR_SUCCESS : ERROR_KEY_DELETED;
  }

  LONG enumKey(HKEY key, DWORD index, std::string* name) override {
    std::lock_guard<std::mutex> g(mutex_);
    int64_t id;
    LONG r = resolve(key, kNeedEnumKeys, &id);
    if (r != ERROR_SUCCESS) return r;
    Query q(stmt("SELECT name FROM registry_keys WHERE parent = ?1 ORDER BY fold LIMIT 1 OFFSET ?2"));
    q.bind(1, id).bind(2, index);
    int rc = q.step();
    if (rc == SQLITE_ROW) {
      *name = q.text(0);
      return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? missing(id, ERROR_NO_MORE_ITEMS) : win32Error(rc);
  }

  LONG enumValue(HKEY key, DWORD index, std::wstring* name) override {
    std::lock_guard<std::mutex> g(mutex_);
    int64_t id;
    LONG r = resolve(key, kNeedQuery, &id);
    if (r != ERROR_SUCCESS) return r;
    Query q(stmt("SELECT name FROM registry_values WHERE key = ?1 ORDER BY fold LIMIT 1 OFFSET ?2"));
    q.bind(1, id).bind(2, index);
    int rc = q.step();
    if (rc == SQLITE_ROW) {
      *name = widen(q.text(0));
      return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? missing(id, ERROR_NO_MORE_ITEMS) : win32Error(rc);
  }

  LONG deleteValue(HKEY key, const std::wstring& name) override {
    std::lock_guard<std::mutex> g(mutex_);
    int64_t id;
    LONG r = resolve(key, kNeedSet, &id);
    if (r != ERROR_SUCCESS) return r;
    Query q(stmt("DELETE FROM registry_values WHERE key = ?1 AND fold = ?2"));
    q.bind(1, id).bind(2, narrow(foldRegistryName(name)));
    int rc = q.step();
    if (rc != SQLITE_DONE) return win32Error(rc);
    return sqlite3_changes(db_.get()) != 0 ? ERROR_SUCCESS : missing(id, ERROR_FILE_NOT_FOUND);
  }

  LONG deleteKey(HKEY parent, const std::string& name) override {
    std::lock_guard<std::mutex> g(mutex_);
    int64_t parentId;
    LONG r = resolve(parent, 0, &parentId);
    if (r != ERROR_SUCCESS) return r;
    if (name.empty() || !validKeyName(name)) return ERROR_INVALID_PARAMETER;
    Transaction t(this);
    if (t.error() != ERROR_SUCCESS) return t.error();
    int64_t id;
    r = child(parentId, name, &id);
    if (r != ERROR_SUCCESS) return r == ERROR_FILE_NOT_FOUND ? missing(parentId, r) : r;
    {
      Query q(stmt("SELECT 1 FROM registry_keys WHERE parent = ?1 LIMIT 1"));
      int rc = q.bind(1, id).step();
      if (rc == SQLITE_ROW) return ERROR_ACCESS_DENIED;
      if (rc != SQLITE_DONE) return win32Error(rc);
    }
    for (const char* sql : {"DELETE FROM registry_values WHERE key = ?1", "DELETE FROM registry_keys WHERE id = ?1"}) {
      Query q(stmt(sql));
      int rc = q.bind(1, id).step();
      if (rc != SQLITE_DONE) return win32Error(rc);
    }
    return t.commit();
  }

  // Called once on a fresh connection: checks that the file is ours (before
  // anything is written to it), then WAL, the busy timeout, and the tables
  // when the file is new. ERROR_SUCCESS or an error with *why filled in.
  LONG prepare(std::string* why) {
    sqlite3_busy_timeout(db_.get(), kBusyTimeoutMs);
    LONG r = checkOwnership(why);
    if (r != ERROR_SUCCESS) return r;
    // WAL lets readers in other processes go on while a write commits.
    int rc = exec("PRAGMA journal_mode=WAL");
    if (rc != SQLITE_OK) return fail(rc, why);
    // A commit survives a process crash at once; a power cut may lose the
    // last commits but never tears one.
    rc = exec("PRAGMA synchronous=NORMAL");
    if (rc != SQLITE_OK) return fail(rc, why);
    Transaction t(this);
    if (t.error() != ERROR_SUCCESS) return fail(SQLITE_BUSY, why);
    // Checked again under the write lock: another process may have set the
    // file up meanwhile.
    bool fresh = false;
    r = checkOwnership(why, &fresh);
    if (r != ERROR_SUCCESS) return r;
    if (fresh) {
      rc = exec(kSchema);
      for (int i = 0; rc == SQLITE_OK && i < kRootCount; ++i) {
        Query q(stmt("INSERT INTO registry_keys(id, parent, name, fold) VALUES (?1, 0, ?2, ?2)"));
        rc = q.bind(1, rootId(i)).bind(2, std::string(rootName(i))).step();
        if (rc == SQLITE_DONE) rc = SQLITE_OK;
      }
      if (rc == SQLITE_OK) rc = exec("PRAGMA application_id=" + std::to_string(kApplicationId));
      if (rc == SQLITE_OK) rc = exec("PRAGMA user_version=" + std::to_string(kSchemaVersion));
      if (rc != SQLITE_OK) return fail(rc, why);
    }
    r = t.commit();
    if (r != ERROR_SUCCESS && why != nullptr) *why = sqlite3_errmsg(db_.get());
    return r;
  }

 private:
  struct OpenKey {
    int64_t id;
    REGSAM access;
  };

  // BEGIN IMMEDIATE ... COMMIT, rolled back when not committed.
  class Transaction {
   public:
    explicit Transaction(SqliteRegistry* owner) : owner_(owner) {
      int rc = owner_->exec("BEGIN IMMEDIATE");
      error_ = rc == SQLITE_OK ? ERROR_SUCCESS : win32Error(rc);
    }
    ~Transaction() {
      if (error_ == ERROR_SUCCESS && !done_) owner_->exec("ROLLBACK");
    }
    LONG error() const { return error_; }
    LONG commit() {
      done_ = true;
      int rc = owner_->exec("COMMIT");
      if (rc != SQLITE_OK) {
        owner_->exec("ROLLBACK");
        return win32Error(rc);
      }
      return ERROR_SUCCESS;
    }

   private:
    SqliteRegistry* owner_;
    LONG error_;
    bool done_ = false;
  };

  int exec(const std::string& sql) { return sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr); }

  int64_t pragma(const char* name) {
    Query q(stmt(std::string("PRAGMA ") + name));
    return q.step() == SQLITE_ROW ? q.int64(0) : -1;
  }

  LONG fail(int rc, std::string* why) {
    if (why != nullptr) *why = sqlite3_errmsg(db_.get());
    return win32Error(rc);
  }

  // Ours (a registry of this format), or empty (*fresh, when asked): fine.
  // Anything else is refused without a byte written.
  LONG checkOwnership(std::string* why, bool* fresh = nullptr) {
    int64_t tables = -1;
    {
      Query q(stmt("SELECT count(*) FROM sqlite_master"));
      int rc = q.step();
      if (rc != SQLITE_ROW) return fail(rc, why);
      tables = q.int64(0);
    }
    int64_t appId = pragma("application_id");
    int64_t version = pragma("user_version");
    if (fresh != nullptr) *fresh = appId == 0 && tables == 0;
    if (appId == 0 && tables == 0) return ERROR_SUCCESS;
    if (appId != kApplicationId) {
      if (why != nullptr) *why = "the file is an SQLite database of another program";
      return ERROR_BADDB;
    }
    if (version != kSchemaVersion) {
      if (why != nullptr) {
        *why = "the registry database has format " + std::to_string(version) + ", this program reads format " +
               std::to_string(kSchemaVersion);
      }
      return ERROR_BADDB;
    }
    return ERROR_SUCCESS;
  }

  // Statements are prepared once per connection and kept.
  sqlite3_stmt* stmt(const std::string& sql) {
    auto it = statements_.find(sql);
    if (it != statements_.end()) return it->second.get();
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v3(db_.get(), sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) != SQLITE_OK) {
      // Only a database damaged under us gets here; the step fails.
      sqlite3_finalize(s);
      return nullptr;
    }
    return statements_.emplace(sql, StmtPtr(s)).first->second.get();
  }

  LONG resolve(HKEY handle, REGSAM need, int64_t* id) {
    int root = rootIndex(handle);
    if (root >= 0) {
      *id = rootId(root);
      return ERROR_SUCCESS;
    }
    auto it = handles_.find(reinterpret_cast<uintptr_t>(handle));
    if (it == handles_.end()) return ERROR_INVALID_HANDLE;
    if (!allows(it->second.access, need)) return ERROR_ACCESS_DENIED;
    *id = it->second.id;
    return ERROR_SUCCESS;
  }

  // `notFound` when the key still exists, ERROR_KEY_DELETED when it is gone.
  LONG missing(int64_t id, LONG notFound) {
    Query q(stmt("SELECT 1 FROM registry_keys WHERE id = ?1"));
    int rc = q.bind(1, id).step();
    if (rc == SQLITE_ROW) return notFound;
    return rc == SQLITE_DONE ? ERROR_KEY_DELETED : win32Error(rc);
  }

  LONG child(int64_t parentId, const std::string& name, int64_t* id) {
    Query q(stmt("SELECT id FROM registry_keys WHERE parent = ?1 AND fold = ?2"));
    int rc = q.bind(1, parentId).bind(2, foldNarrow(name)).step();
    if (rc == SQLITE_ROW) {
      *id = q.int64(0);
      return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? ERROR_FILE_NOT_FOUND : win32Error(rc);
  }

  LONG open(HKEY parent, const std::string& name, REGSAM access, bool create, HKEY* result, bool* created) {
    if (created != nullptr) *created = false;
    int64_t parentId;
    LONG r = resolve(parent, 0, &parentId);
    if (r != ERROR_SUCCESS) return r;
    if (!validKeyName(name)) return ERROR_INVALID_PARAMETER;
    int64_t id = parentId;
    if (name.empty()) {
      r = missing(parentId, ERROR_SUCCESS);
    } else {
      r = child(parentId, name, &id);
      if (r == ERROR_FILE_NOT_FOUND && create) {
        r = insertKey(parent, parentId, name, &id);
        if (r == ERROR_SUCCESS && created != nullptr) *created = true;
      } else if (r == ERROR_FILE_NOT_FOUND) {
        r = missing(parentId, r);
      }
    }
    if (r != ERROR_SUCCESS) return r;
    HKEY h = handleFromNumber(nextHandle_++);
    handles_[reinterpret_cast<uintptr_t>(h)] = OpenKey{id, access};
    *result = h;
    return ERROR_SUCCESS;
  }

  LONG insertKey(HKEY parent, int64_t parentId, const std::string& name, int64_t* id) {
    if (rootIndex(parent) < 0 && !allows(handles_[reinterpret_cast<uintptr_t>(parent)].access, kNeedCreate)) {
      return ERROR_ACCESS_DENIED;
    }
    Transaction t(this);
    if (t.error() != ERROR_SUCCESS) return t.error();
    // Another process may have made it since we looked.
    LONG r = child(parentId, name, id);
    if (r == ERROR_SUCCESS) return t.commit();
    Query q(stmt(
        "INSERT INTO registry_keys(parent, name, fold)"
        " SELECT ?1, ?2, ?3 WHERE EXISTS(SELECT 1 FROM registry_keys WHERE id = ?1)"));
    int rc = q.bind(1, parentId).bind(2, name).bind(3, foldNarrow(name)).step();
    if (rc != SQLITE_DONE) return win32Error(rc);
    if (sqlite3_changes(db_.get()) == 0) return ERROR_KEY_DELETED;
    *id = sqlite3_last_insert_rowid(db_.get());
    return t.commit();
  }

  std::mutex mutex_;
  Db db_;
  std::unordered_map<std::string, StmtPtr> statements_;
  std::unordered_map<uintptr_t, OpenKey> handles_;
  uintptr_t nextHandle_ = 0;
};

}  // namespace

std::shared_ptr<RegistryBackend> openSqliteRegistry(const std::string& path, std::string* error) {
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                           nullptr);
  Db db(raw);
  if (rc != SQLITE_OK) {
    if (error != nullptr) *error = "cannot open registry " + path + ": " + (raw ? sqlite3_errmsg(raw) : "out of memory");
    return nullptr;
  }
  auto registry = std::make_shared<SqliteRegistry>(std::move(db));
  std::string why;
  if (registry->prepare(&why) != ERROR_SUCCESS) {
    if (error != nullptr) *error = "cannot use registry " + path + ": " + why;
    return nullptr;
  }
  return registry;
}

}  // namespace glidewell
