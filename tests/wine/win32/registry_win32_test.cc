// The registry on Windows itself (under Wine): the Win32 backend must show
// the behaviour that the portable backends copy from it (names that ignore
// case but keep their first spelling, subkeys in upper-case order, leaf-only
// deletion, handles that carry their rights and notice a deleted key), and
// the statistics must keep their rules against the real registry and clock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/dfrg_statistics.h"
#include "config/registry_store.h"
#include "platform/env.h"
#include "platform/registry_backend.h"

namespace glidewell {
namespace {

// Every test works below a scratch key of its own, removed at the end.
const char kScratch[] = "Software\\GlidewellWineTests";

std::vector<BYTE> bytesOf(uint64_t v, size_t n) {
  std::vector<BYTE> b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<BYTE>(v >> (8 * i));
  return b;
}

class Win32RegistryTest : public testing::Test {
 protected:
  void SetUp() override {
    reg_ = RegistryBackend::system();
    ::RegDeleteTreeA(HKEY_CURRENT_USER, kScratch);
    ASSERT_EQ(ERROR_SUCCESS, reg_->createKey(HKEY_CURRENT_USER, kScratch, KEY_ALL_ACCESS, &scratch_, nullptr));
  }
  void TearDown() override {
    reg_->closeKey(scratch_);
    ::RegDeleteTreeA(HKEY_CURRENT_USER, kScratch);
  }

  HKEY create(HKEY parent, const std::string& name, REGSAM access = KEY_ALL_ACCESS, bool* created = nullptr) {
    HKEY k = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, reg_->createKey(parent, name, access, &k, created)) << name;
    return k;
  }
  LONG put(HKEY k, const std::wstring& name, DWORD type, const std::vector<BYTE>& data) {
    return reg_->setValue(k, name, type, data.data(), static_cast<DWORD>(data.size()));
  }
  LONG get(HKEY k, const std::wstring& name, DWORD* type = nullptr, std::vector<BYTE>* data = nullptr) {
    DWORD t;
    std::vector<BYTE> d;
    return reg_->queryValue(k, name, type != nullptr ? type : &t, data != nullptr ? data : &d);
  }
  std::vector<std::string> subkeys(HKEY k) {
    std::vector<std::string> names;
    std::string name;
    for (DWORD i = 0; reg_->enumKey(k, i, &name) == ERROR_SUCCESS; ++i) names.push_back(name);
    return names;
  }

  std::shared_ptr<RegistryBackend> reg_;
  HKEY scratch_ = nullptr;
};

TEST_F(Win32RegistryTest, NamesIgnoreCaseAndKeepTheirFirstSpelling) {
  bool created = false;
  HKEY first = create(scratch_, "Settings", KEY_ALL_ACCESS, &created);
  EXPECT_TRUE(created);
  HKEY again = create(scratch_, "SETTINGS", KEY_ALL_ACCESS, &created);
  EXPECT_FALSE(created);
  HKEY self = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(first, "", KEY_READ, &self)) << "an empty name opens the key itself";
  ASSERT_EQ(ERROR_SUCCESS, put(first, L"Drive Map", REG_DWORD, bytesOf(4, 4)));
  ASSERT_EQ(ERROR_SUCCESS, put(again, L"DRIVE MAP", REG_QWORD, bytesOf(5, 8)));
  DWORD type = 0;
  std::vector<BYTE> data;
  ASSERT_EQ(ERROR_SUCCESS, get(self, L"drive map", &type, &data));
  EXPECT_EQ(static_cast<DWORD>(REG_QWORD), type) << "overwriting replaces the type";
  EXPECT_EQ(bytesOf(5, 8), data);
  std::wstring valueName;
  ASSERT_EQ(ERROR_SUCCESS, reg_->enumValue(first, 0, &valueName));
  EXPECT_EQ(L"Drive Map", valueName);
  EXPECT_EQ(std::vector<std::string>{"Settings"}, subkeys(scratch_));

  ASSERT_EQ(ERROR_SUCCESS, put(first, L"empty", REG_BINARY, {}));
  data.assign(3, 1);
  EXPECT_EQ(ERROR_SUCCESS, get(first, L"empty", &type, &data));
  EXPECT_TRUE(data.empty());
  EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), get(first, L"none"));
  HKEY missing = nullptr;
  EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), reg_->openKey(scratch_, "none", KEY_READ, &missing));
  for (HKEY k : {first, again, self}) EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(k));
}

TEST_F(Win32RegistryTest, SubkeysEnumerateInUpperCaseOrderWithLongNames) {
  const std::string longName(200, 'x');  // past the 4-byte start of the enumeration buffer
  // (Windows compares in upper case, so "_" sorts after the letters; Wine
  // folds to lower case and puts it first. The engine's names never meet that.)
  for (const char* name : {"beta", "Alpha", "Beta2", "alpha1", "GAMMA", "C:"}) reg_->closeKey(create(scratch_, name));
  reg_->closeKey(create(scratch_, longName));
  EXPECT_EQ((std::vector<std::string>{"Alpha", "alpha1", "beta", "Beta2", "C:", "GAMMA", longName}),
            subkeys(scratch_));
  std::string name;
  EXPECT_EQ(static_cast<LONG>(ERROR_NO_MORE_ITEMS), reg_->enumKey(scratch_, 7, &name));
  std::wstring valueName;
  EXPECT_EQ(static_cast<LONG>(ERROR_NO_MORE_ITEMS), reg_->enumValue(scratch_, 0, &valueName));
}

TEST_F(Win32RegistryTest, OnlyLeavesAreDeletedAndOldHandlesNoticeIt) {
  HKEY mid = create(scratch_, "mid");
  reg_->closeKey(create(mid, "leaf"));
  ASSERT_EQ(ERROR_SUCCESS, put(mid, L"v", REG_DWORD, bytesOf(5, 4)));
  EXPECT_EQ(ERROR_SUCCESS, reg_->deleteValue(mid, L"V"));
  EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), reg_->deleteValue(mid, L"v"));
  EXPECT_EQ(static_cast<LONG>(ERROR_ACCESS_DENIED), reg_->deleteKey(scratch_, "mid")) << "it has a subkey";
  EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), reg_->deleteKey(scratch_, "nothing"));

  // Deleting a subkey needs no write access on the parent handle.
  HKEY readOnly = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(scratch_, "mid", KEY_READ, &readOnly));
  EXPECT_EQ(ERROR_SUCCESS, reg_->deleteKey(readOnly, "LEAF"));
  reg_->closeKey(readOnly);
  EXPECT_EQ(ERROR_SUCCESS, reg_->deleteKey(scratch_, "mid"));
  EXPECT_EQ(static_cast<LONG>(ERROR_KEY_DELETED), get(mid, L"v"));
  EXPECT_EQ(static_cast<LONG>(ERROR_KEY_DELETED), put(mid, L"w", REG_DWORD, bytesOf(1, 4)));
  std::string name;
  EXPECT_EQ(static_cast<LONG>(ERROR_KEY_DELETED), reg_->enumKey(mid, 0, &name));
  EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(mid));
}

TEST_F(Win32RegistryTest, HandlesCarryTheirRightsAndDieWhenClosed) {
  reg_->closeKey(create(scratch_, "rights"));
  HKEY ro = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(scratch_, "rights", KEY_READ, &ro));
  EXPECT_EQ(static_cast<LONG>(ERROR_ACCESS_DENIED), put(ro, L"v", REG_DWORD, bytesOf(2, 4)));
  // (Windows also refuses to create a subkey through this handle; Wine does not check.)
  HKEY writeOnly = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(scratch_, "rights", KEY_SET_VALUE, &writeOnly));
  EXPECT_EQ(ERROR_SUCCESS, put(writeOnly, L"v", REG_DWORD, bytesOf(3, 4)));
  EXPECT_EQ(static_cast<LONG>(ERROR_ACCESS_DENIED), get(writeOnly, L"v"));
  for (HKEY k : {ro, writeOnly}) EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(k));
  EXPECT_EQ(static_cast<LONG>(ERROR_INVALID_HANDLE), reg_->closeKey(ro));
  EXPECT_EQ(static_cast<LONG>(ERROR_INVALID_HANDLE), get(ro, L"v"));
  EXPECT_EQ(ERROR_SUCCESS, reg_->closeKey(HKEY_CURRENT_USER)) << "a predefined root is never really closed";
}

TEST_F(Win32RegistryTest, TheTypedStoreOpensMixedPathsOnTheRealRegistry) {
  CRegistryStore store(HKEY_CURRENT_USER);
  std::unique_ptr<CRegistryKey> key;
  ASSERT_TRUE(store.openKey(std::string(kScratch) + "/a\\b/Quorvane Glidewell", key, KEY_ALL_ACCESS, nullptr, true));
  EXPECT_EQ("Quorvane Glidewell", key->name());
  EXPECT_TRUE(key->setString(L"Name", L"System"));
  ASSERT_EQ(ERROR_SUCCESS, put(scratch_, L"text", REG_SZ, {'7', 0, 0, 0}));
  CRegistryKey copy = *key;
  EXPECT_EQ(1u, store.openKeyCount());
  std::wstring name;
  EXPECT_TRUE(copy.getString(L"NAME", name, L""));
  EXPECT_EQ(L"System", name);
  DWORD dw = 0;
  CRegistryKey scratch = store.key(kScratch, KEY_READ, false);
  EXPECT_FALSE(scratch.getDword(L"text", dw, 42)) << "a REG_SZ is no DWORD";
  EXPECT_EQ(42u, dw);
  EXPECT_FALSE(store.key(std::string(kScratch) + "\\a\\missing", KEY_READ, false).isValid());
}

// --- Statistics against the real registry and the real clock.

class Win32StatisticsTest : public Win32RegistryTest {
 protected:
  const std::string path_ = std::string(kScratch) + "\\Stats";
  const std::string statsKey_ = path_ + "\\statistics";

  // A stored counter, or -1 when it is missing or not a REG_QWORD.
  int64_t counter(const std::string& key, const wchar_t* name = L"Processed Files") {
    HKEY k = nullptr;
    if (::RegOpenKeyExA(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &k) != ERROR_SUCCESS) return -1;
    DWORD type = 0;
    std::vector<BYTE> data;
    LONG r = get(k, name, &type, &data);
    ::RegCloseKey(k);
    if (r != ERROR_SUCCESS || type != REG_QWORD || data.size() != 8) return -1;
    int64_t n = 0;
    for (int i = 7; i >= 0; --i) n = (n << 8) | data[i];
    return n;
  }
  void setRaw(const std::string& key, const wchar_t* name, DWORD type, const std::vector<BYTE>& data) {
    HKEY k = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, reg_->createKey(HKEY_CURRENT_USER, key, KEY_ALL_ACCESS, &k, nullptr));
    ASSERT_EQ(ERROR_SUCCESS, put(k, name, type, data));
    reg_->closeKey(k);
  }
  // The local date `days` from today as the daily key names it.
  static std::string day(int days) {
    SYSTEMTIME now = Env::current()->localTime();
    uint64_t ft = 0;
    Env::current()->systemTimeToFileTime(now, &ft);
    ft += static_cast<int64_t>(days) * 864000000000ll;
    FILETIME f{static_cast<DWORD>(ft), static_cast<DWORD>(ft >> 32)};
    SYSTEMTIME t;
    ::FileTimeToSystemTime(&f, &t);
    char buf[16];
    std::snprintf(buf, sizeof(buf), "%04d-%02d-%02d", t.wYear, t.wMonth, t.wDay);
    return buf;
  }
};

TEST_F(Win32StatisticsTest, FlushesWriteAtMostOncePerSecond) {
  CDfrgStatistics stats(HKEY_CURRENT_USER, path_);
  stats.addProcessed(1);
  stats.flush(false);
  EXPECT_EQ(1, counter(statsKey_)) << "the first flush always writes";
  stats.addProcessed(1);
  stats.flush(false);
  stats.addProcessed(1);
  stats.flush(false);
  EXPECT_EQ(1, counter(statsKey_)) << "within a second nothing more is written";
  EXPECT_EQ(3u, stats.currentCounters().processed);
  Env::current()->sleep(1100);
  stats.flush(false);
  EXPECT_EQ(3, counter(statsKey_));
  EXPECT_EQ(3, counter(statsKey_ + "\\complete"));
  EXPECT_EQ(3, counter(statsKey_ + "\\daily\\" + day(0)));
}

TEST_F(Win32StatisticsTest, MistypedCountersLoadAsZeroAndAreRewrittenAsQwords) {
  setRaw(statsKey_, L"Processed Files", REG_DWORD, bytesOf(77, 4));
  setRaw(statsKey_ + "\\complete", L"Moved Files", REG_QWORD, bytesOf(9, 8));
  // The daily counters are read with narrow names, which also take 8 bytes of REG_BINARY.
  setRaw(statsKey_ + "\\daily\\" + day(0), L"Defragged Files", REG_BINARY, bytesOf(5, 8));
  CDfrgStatistics stats(HKEY_CURRENT_USER, path_);
  EXPECT_EQ(0u, stats.currentCounters().processed);
  EXPECT_EQ(9u, stats.completeCounters().moved);
  EXPECT_EQ(5u, stats.dailyCounters().defragged);
  stats.setStatus(3);
  stats.setLastFile(L"C:\\dir\\file.txt");
  stats.flush(true);
  EXPECT_EQ(0, counter(statsKey_));
  EXPECT_EQ(5, counter(statsKey_ + "\\daily\\" + day(0), L"Defragged Files"));

  HKEY k = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(HKEY_CURRENT_USER, statsKey_, KEY_READ, &k));
  EXPECT_EQ(ERROR_SUCCESS, get(k, L"Status"));
  stats.resetAll();
  EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), get(k, L"Status"));
  EXPECT_EQ(static_cast<LONG>(ERROR_FILE_NOT_FOUND), get(k, L"Last File"));
  reg_->closeKey(k);
  EXPECT_EQ(0, counter(statsKey_ + "\\complete", L"Moved Files"));
}

TEST_F(Win32StatisticsTest, LoadingPurgesDaysOlderThanAWeekAndDaysToCome) {
  for (int d : {-10, -7, 1}) setRaw(statsKey_ + "\\daily\\" + day(d), L"Processed Files", REG_QWORD, bytesOf(1, 8));
  CDfrgStatistics stats(HKEY_CURRENT_USER, path_);
  stats.addProcessed(1);  // the first use loads, which opens today's key and purges
  HKEY daily = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, reg_->openKey(HKEY_CURRENT_USER, statsKey_ + "\\daily", KEY_READ, &daily));
  EXPECT_EQ((std::vector<std::string>{day(-7), day(0)}), subkeys(daily));
  reg_->closeKey(daily);
}

}  // namespace
}  // namespace glidewell
