// One contract, run against every registry backend this system has (in the
// manner of RocksDB's env_basic_test): what the typed store relies on must
// hold for the in-memory tree and the SQLite file alike.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <thread>

#include "platform/posix/registry_sqlite.h"
#include "platform/registry_backend.h"
#include "support/registry_test_util.h"

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
    ASSERT_FALSE(dir_.path().empty());
    reg_ = GetParam().make(dir_.path());
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

  // Each root is a tree of its own.
  HKEY other = nullptr;
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, reg_->openKey(HKEY_LOCAL_MACHINE, "Software", KEY_READ, &other));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, reg_->openKey(soft, "missing", KEY_READ, &other));

  // An empty name is a new handle onto the key itself.
  HKEY self = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(soft, "", KEY_ALL_ACCESS, &self));
  EXPECT_EQ(dwordBytes(7), get(*reg_, self, L"v").data);
  for (HKEY k : {soft, again, opened, self}) EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(k));
}

TEST_P(RegistryBackendContract, ValuesKeepTheirTypeAndBytes) {
  HKEY k = create(HKEY_CURRENT_USER, "values");
  std::vector<BYTE> binary = {0, 1, 0, 255, 0};
  ASSERT_EQ(ERROR_SUCCESS, put(*reg_, k, L"dword", REG_DWORD, dwordBytes(0xDEADBEEF)));
  ASSERT_EQ(ERROR_SUCCESS, put(*reg_, k, L"qword", REG_QWORD, qwordBytes(0x0123456789ABCDEFull)));
  ASSERT_EQ(ERROR_SUCCESS, put(*reg_, k, L"text", REG_SZ, utf16Bytes(L"C:\\x \u00e9")));
  ASSERT_EQ(ERROR_SUCCESS, put(*reg_, k, L"binary", REG_BINARY, binary));
  ASSERT_EQ(ERROR_SUCCESS, put(*reg_, k, L"empty", REG_BINARY, {}));

  RawValue v = get(*reg_, k, L"DWORD");
  EXPECT_EQ(REG_DWORD, v.type);
  EXPECT_EQ(dwordBytes(0xDEADBEEF), v.data);
  EXPECT_EQ(qwordBytes(0x0123456789ABCDEFull), get(*reg_, k, L"qword").data);
  EXPECT_EQ(utf16Bytes(L"C:\\x \u00e9"), get(*reg_, k, L"text").data);
  EXPECT_EQ(binary, get(*reg_, k, L"binary").data);
  v = get(*reg_, k, L"empty");
  EXPECT_EQ(ERROR_SUCCESS, v.result);
  EXPECT_EQ(REG_BINARY, v.type);
  EXPECT_TRUE(v.data.empty());
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, get(*reg_, k, L"none").result);

  // Overwriting replaces type and data but keeps the first spelling.
  ASSERT_EQ(ERROR_SUCCESS, put(*reg_, k, L"TEXT", REG_DWORD, dwordBytes(1)));
  v = get(*reg_, k, L"text");
  EXPECT_EQ(REG_DWORD, v.type);
  EXPECT_EQ(dwordBytes(1), v.data);
  EXPECT_EQ((std::vector<std::wstring>{L"binary", L"dword", L"empty", L"qword", L"text"}), valueNames(*reg_, k));
  reg_->closeKey(k);
}

TEST_P(RegistryBackendContract, EnumerationFollowsCaseInsensitiveOrder) {
  HKEY k = create(HKEY_CURRENT_USER, "order");
  for (const char* name : {"beta", "Alpha", "_last", "Beta2", "alpha1", "GAMMA"}) reg_->closeKey(create(k, name));
  for (const wchar_t* name : {L"zeta", L"Eta", L"_x", L"eta2", L"ALPHA"}) put(*reg_, k, name, REG_DWORD, dwordBytes(0));

  // Compared in upper case, as the Windows registry does: "_" sorts after letters.
  EXPECT_EQ((std::vector<std::string>{"Alpha", "alpha1", "beta", "Beta2", "GAMMA", "_last"}), subkeyNames(*reg_, k));
  EXPECT_EQ((std::vector<std::wstring>{L"ALPHA", L"Eta", L"eta2", L"zeta", L"_x"}), valueNames(*reg_, k));

  std::string name;
  std::wstring wname;
  EXPECT_EQ(ERROR_NO_MORE_ITEMS, reg_->enumKey(k, 6, &name));
  EXPECT_EQ(ERROR_NO_MORE_ITEMS, reg_->enumValue(k, 5, &wname));
  reg_->closeKey(k);
}

TEST_P(RegistryBackendContract, DeletionRemovesWholeLeavesOnly) {
  HKEY top = create(HKEY_CURRENT_USER, "top");
  HKEY mid = create(top, "mid");
  reg_->closeKey(create(mid, "leaf"));
  put(*reg_, mid, L"v", REG_DWORD, dwordBytes(5));

  EXPECT_EQ(ERROR_SUCCESS, reg_->deleteValue(mid, L"V"));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, reg_->deleteValue(mid, L"v"));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, get(*reg_, mid, L"v").result);
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

  HKEY writeOnly = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(HKEY_CURRENT_USER, "rights", KEY_SET_VALUE, &writeOnly));
  EXPECT_EQ(ERROR_ACCESS_DENIED, get(*reg_, writeOnly, L"v").result);
  EXPECT_EQ(ERROR_SUCCESS, put(*reg_, writeOnly, L"v", REG_DWORD, dwordBytes(3)));
  for (HKEY k : {all, ro, writeOnly}) reg_->closeKey(k);
}

TEST_P(RegistryBackendContract, ClosedHandlesAreRefused) {
  HKEY k = create(HKEY_CURRENT_USER, "closing");
  EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(k));
  EXPECT_EQ(ERROR_INVALID_HANDLE, reg_->closeKey(k));
  EXPECT_EQ(ERROR_INVALID_HANDLE, put(*reg_, k, L"v", REG_DWORD, dwordBytes(1)));
  EXPECT_EQ(ERROR_INVALID_HANDLE, get(*reg_, k, L"v").result);
  // The predefined roots are never really closed.
  EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(HKEY_CURRENT_USER));
  HKEY again = nullptr;
  EXPECT_EQ(ERROR_SUCCESS, reg_->openKey(HKEY_CURRENT_USER, "closing", KEY_READ, &again));
  reg_->closeKey(again);
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

// Random writes and deletes against a plain map; on a mismatch the seed
// reproduces the run.
TEST_P(RegistryBackendContract, RandomOperationsMatchAModel) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  const std::vector<std::wstring> names = {L"a", L"B", L"cc", L"Dd", L"e e", L"\u00e9t\u00e9"};
  const std::vector<std::string> keys = {"k0", "k1", "k2"};
  // key -> folded value name -> (type, bytes)
  std::map<std::string, std::map<std::wstring, std::pair<DWORD, std::vector<BYTE>>>> model;
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
      values[folded] = {type, data};
    }
    if (step % 50 == 49) {
      for (size_t i = 0; i < keys.size(); ++i) {
        const auto& expected = model[keys[i]];
        std::vector<std::wstring> listed = valueNames(*reg_, handles[i]);
        ASSERT_EQ(expected.size(), listed.size()) << "step " << step;
        size_t n = 0;
        for (const auto& entry : expected) {
          ASSERT_EQ(entry.first, foldRegistryName(listed[n++])) << "step " << step;
          RawValue v = get(*reg_, handles[i], entry.first);
          ASSERT_EQ(entry.second.first, v.type);
          ASSERT_EQ(entry.second.second, v.data);
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
