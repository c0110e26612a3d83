// One contract, run against every registry backend this system has (in the
// manner of RocksDB's env_basic_test): what the typed store relies on must
// hold for the in-memory tree and the SQLite file alike. Values are driven
// against a model; keys, deletion, access rights and threads by hand.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <thread>

#include "platform/posix/registry_sqlite.h"
#include "platform/registry_backend.h"
#include "support/registry_test_util.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace test {
namespace {

struct BackendKind {
  const char* name;
  std::function<std::shared_ptr<RegistryBackend>(const std::string& dir)> make;
};

const BackendKind kMemory{"Memory", [](const std::string&) { return RegistryBackend::newMemory(); }};
const BackendKind kSqlite{"Sqlite", [](const std::string& dir) {
                            std::string error;
                            auto r = openSqliteRegistry(dir + "/registry.db", &error);
                            EXPECT_TRUE(r) << error;
                            return r;
                          }};

class RegistryBackendContract : public ::testing::TestWithParam<BackendKind> {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.native().empty());
    reg_ = GetParam().make(dir_.native());
    ASSERT_TRUE(reg_);
  }

  HKEY create(HKEY parent, const std::string& name, REGSAM access = KEY_ALL_ACCESS, bool* created = nullptr) {
    HKEY k = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, reg_->createKey(parent, name, access, &k, created)) << name;
    return k;
  }

  TempDir dir_;
  std::shared_ptr<RegistryBackend> reg_;
};

TEST_P(RegistryBackendContract, KeysAreCreatedOnceAndOpenIgnoringCase) {
  bool created = false;
  HKEY soft = create(HKEY_CURRENT_USER, "Software", KEY_ALL_ACCESS, &created);
  EXPECT_TRUE(created);
  HKEY again = create(HKEY_CURRENT_USER, "SOFTWARE", KEY_ALL_ACCESS, &created);
  EXPECT_FALSE(created);
  HKEY opened = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(HKEY_CURRENT_USER, "software", KEY_READ, &opened));

  // All three handles are the same key; the first spelling is the name.
  ASSERT_EQ(ERROR_SUCCESS, put(*reg_, soft, L"v", REG_DWORD, dwordBytes(7)));
  EXPECT_EQ(dwordBytes(7), get(*reg_, opened, L"V").data);
  EXPECT_EQ(dwordBytes(7), get(*reg_, again, L"v").data);
  EXPECT_EQ(std::vector<std::string>{"Software"}, subkeyNames(*reg_, HKEY_CURRENT_USER));
  // Subkeys are listed in upper-case order, as the Windows registry sorts: "_" after letters.
  for (const char* name : {"beta", "_last", "Alpha", "Beta2", "alpha1"}) reg_->closeKey(create(soft, name));
  EXPECT_EQ((std::vector<std::string>{"Alpha", "alpha1", "beta", "Beta2", "_last"}), subkeyNames(*reg_, soft));

  // Each root is a tree of its own.
  HKEY other = nullptr;
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, reg_->openKey(HKEY_LOCAL_MACHINE, "Software", KEY_READ, &other));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, reg_->openKey(soft, "missing", KEY_READ, &other));

  // An empty name is a new handle onto the key itself.
  HKEY self = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(soft, "", KEY_ALL_ACCESS, &self));
  EXPECT_EQ(dwordBytes(7), get(*reg_, self, L"v").data);
  for (HKEY k : {soft, again, opened, self}) EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(k));

  // Closed handles are refused; the predefined roots are never really closed.
  EXPECT_EQ(ERROR_INVALID_HANDLE, reg_->closeKey(soft));
  EXPECT_EQ(ERROR_INVALID_HANDLE, put(*reg_, again, L"v", REG_DWORD, dwordBytes(1)));
  EXPECT_EQ(ERROR_INVALID_HANDLE, get(*reg_, opened, L"v").result);
  EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(HKEY_CURRENT_USER));
  EXPECT_EQ(ERROR_SUCCESS, reg_->openKey(HKEY_CURRENT_USER, "software", KEY_READ, &opened));
  reg_->closeKey(opened);
}

TEST_P(RegistryBackendContract, DeletionRemovesWholeLeavesOnly) {
  HKEY top = create(HKEY_CURRENT_USER, "top");
  HKEY mid = create(top, "mid");
  reg_->closeKey(create(mid, "leaf"));
  put(*reg_, mid, L"v", REG_DWORD, dwordBytes(5));

  // A key with subkeys stays, with its values.
  EXPECT_EQ(ERROR_ACCESS_DENIED, reg_->deleteKey(top, "mid"));
  EXPECT_EQ(ERROR_SUCCESS, get(*reg_, mid, L"v").result);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, reg_->deleteKey(top, "nothing"));

  EXPECT_EQ(ERROR_SUCCESS, reg_->deleteKey(mid, "LEAF"));
  EXPECT_EQ(ERROR_SUCCESS, reg_->deleteKey(top, "mid"));
  // A handle onto the deleted key sees that it is gone and cannot bring it back.
  EXPECT_EQ(ERROR_KEY_DELETED, get(*reg_, mid, L"v").result);
  EXPECT_EQ(ERROR_KEY_DELETED, put(*reg_, mid, L"w", REG_DWORD, dwordBytes(1)));
  std::string name;
  EXPECT_EQ(ERROR_KEY_DELETED, reg_->enumKey(mid, 0, &name));
  HKEY sub = nullptr;
  EXPECT_NE(ERROR_SUCCESS, reg_->createKey(mid, "again", KEY_ALL_ACCESS, &sub, nullptr));
  EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(mid));

  // Made again, the key is new and empty.
  mid = create(top, "mid");
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, get(*reg_, mid, L"v").result);
  EXPECT_TRUE(subkeyNames(*reg_, mid).empty());
  reg_->closeKey(mid);
  reg_->closeKey(top);
}

TEST_P(RegistryBackendContract, HandlesCarryTheirAccessRights) {
  reg_->closeKey(create(HKEY_CURRENT_USER, "rights"));
  HKEY all = create(HKEY_CURRENT_USER, "rights");
  reg_->closeKey(create(all, "child"));
  put(*reg_, all, L"v", REG_DWORD, dwordBytes(1));

  HKEY ro = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(HKEY_CURRENT_USER, "rights", KEY_READ, &ro));
  EXPECT_EQ(ERROR_SUCCESS, get(*reg_, ro, L"v").result);
  EXPECT_EQ(std::vector<std::string>{"child"}, subkeyNames(*reg_, ro));
  EXPECT_EQ(ERROR_ACCESS_DENIED, put(*reg_, ro, L"v", REG_DWORD, dwordBytes(2)));
  EXPECT_EQ(ERROR_ACCESS_DENIED, reg_->deleteValue(ro, L"v"));
  HKEY sub = nullptr;
  EXPECT_EQ(ERROR_ACCESS_DENIED, reg_->createKey(ro, "new", KEY_ALL_ACCESS, &sub, nullptr));
  // Deleting a subkey needs no write access on its parent (the purge of old
  // daily statistics relies on it).
  EXPECT_EQ(ERROR_SUCCESS, reg_->deleteKey(ro, "child"));
  EXPECT_EQ(dwordBytes(1), get(*reg_, all, L"v").data);
  reg_->closeKey(ro);

  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(HKEY_CURRENT_USER, "rights", KEY_SET_VALUE, &ro));
  EXPECT_EQ(ERROR_ACCESS_DENIED, get(*reg_, ro, L"v").result);
  EXPECT_EQ(ERROR_SUCCESS, put(*reg_, ro, L"v", REG_DWORD, dwordBytes(3)));
  for (HKEY k : {all, ro}) reg_->closeKey(k);
}

TEST_P(RegistryBackendContract, ThreadsWriteThroughTheirOwnHandles) {
  constexpr int kThreads = 4;
  constexpr int kValues = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      HKEY k = nullptr;
      ASSERT_EQ(ERROR_SUCCESS, reg_->createKey(HKEY_CURRENT_USER, "shared", KEY_ALL_ACCESS, &k, nullptr));
      for (int i = 0; i < kValues; ++i) {
        std::wstring name = L"t" + std::to_wstring(t) + L"_" + std::to_wstring(i);
        ASSERT_EQ(ERROR_SUCCESS, put(*reg_, k, name, REG_DWORD, dwordBytes(t * 1000 + i)));
      }
      reg_->closeKey(k);
    });
  }
  for (auto& th : threads) th.join();
  HKEY k = create(HKEY_CURRENT_USER, "shared");
  EXPECT_EQ(static_cast<size_t>(kThreads * kValues), valueNames(*reg_, k).size());
  EXPECT_EQ(dwordBytes(3 * 1000 + 99), get(*reg_, k, L"T3_99").data);
  reg_->closeKey(k);
}

// Values: random writes and deletes against a plain map of folded name ->
// (first spelling, type, bytes), which also gives the enumeration order. On
// a mismatch the seed reproduces the run.
TEST_P(RegistryBackendContract, RandomOperationsMatchAModel) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  const std::vector<std::wstring> names = {L"a", L"B", L"cc", L"Dd", L"e e", L"_x", L"\u00e9t\u00e9"};
  const std::vector<std::string> keys = {"k0", "k1", "k2"};
  struct Value {
    std::wstring spelling;
    DWORD type;
    std::vector<BYTE> data;
  };
  std::map<std::string, std::map<std::wstring, Value>> model;  // key -> folded name -> value
  std::vector<HKEY> handles;
  for (const auto& name : keys) handles.push_back(create(HKEY_CURRENT_USER, name));

  auto randomCase = [&rng](std::wstring s) {
    for (wchar_t& c : s) {
      if (rng() % 2) c = foldRegistryName(std::wstring(1, c))[0];
    }
    return s;
  };
  for (int step = 0; step < 600; ++step) {
    size_t ki = rng() % keys.size();
    std::wstring name = randomCase(names[rng() % names.size()]);
    std::wstring folded = foldRegistryName(name);
    auto& values = model[keys[ki]];
    if (rng() % 4 == 0) {
      LONG expected = values.erase(folded) != 0 ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
      ASSERT_EQ(expected, reg_->deleteValue(handles[ki], name)) << "step " << step;
    } else {
      DWORD type = std::vector<DWORD>{REG_DWORD, REG_QWORD, REG_SZ, REG_BINARY}[rng() % 4];
      std::vector<BYTE> data(rng() % 40);
      for (BYTE& b : data) b = static_cast<BYTE>(rng());
      ASSERT_EQ(ERROR_SUCCESS, put(*reg_, handles[ki], name, type, data));
      auto old = values.find(folded);
      values[folded] = {old != values.end() ? old->second.spelling : name, type, data};
    }
    if (step % 50 == 49) {
      for (size_t i = 0; i < keys.size(); ++i) {
        const auto& expected = model[keys[i]];
        std::vector<std::wstring> listed = valueNames(*reg_, handles[i]);
        ASSERT_EQ(expected.size(), listed.size()) << "step " << step;
        size_t n = 0;
        for (const auto& entry : expected) {
          ASSERT_EQ(entry.second.spelling, listed[n++]) << "step " << step;
          RawValue v = get(*reg_, handles[i], randomCase(entry.second.spelling));
          ASSERT_EQ(entry.second.type, v.type);
          ASSERT_EQ(entry.second.data, v.data);
        }
        for (const std::wstring& name : names) {
          if (expected.count(foldRegistryName(name)) == 0) {
            ASSERT_EQ(ERROR_FILE_NOT_FOUND, get(*reg_, handles[i], name).result) << "step " << step;
          }
        }
      }
    }
  }
  for (HKEY k : handles) reg_->closeKey(k);
}

INSTANTIATE_TEST_SUITE_P(Backends, RegistryBackendContract, ::testing::Values(kMemory, kSqlite),
                         [](const ::testing::TestParamInfo<BackendKind>& info) { return info.param.name; });

}  // namespace
}  // namespace test
}  // namespace glidewell
