#include "config/registry_store.h"

#include <gtest/gtest.h>

#include "platform/text.h"
#include "support/registry_test_util.h"

namespace glidewell {
namespace test {
namespace {

class RegistryStoreTest : public RegistryTest {
 protected:
  // The type and bytes of a value of the key "types".
  std::pair<DWORD, std::vector<BYTE>> typed(const std::string& name) {
    RawValue v = value("types", widen(name));
    return {v.type, v.data};
  }
  CRegistryStore store_{HKEY_CURRENT_USER, reg_};
};

TEST_F(RegistryStoreTest, PathsSplitOnEitherSeparatorAndCloseWhatTheyPass) {
  std::unique_ptr<CRegistryKey> key;
  ASSERT_TRUE(store_.openKey("One/Two\\Three", key, KEY_ALL_ACCESS, nullptr, true));
  EXPECT_EQ("Three", key->name());
  // Three nested keys exist; only the last is still open.
  EXPECT_EQ(1u, reg_->openHandles());
  EXPECT_EQ(std::vector<std::string>{"Three"}, names("one\\two"));

  // Relative to a parent; and a path that does not exist, without create.
  CRegistryKey one = store_.key("ONE", KEY_ALL_ACCESS, false);
  std::unique_ptr<CRegistryKey> three;
  EXPECT_TRUE(store_.openKey("two/three", three, KEY_READ, &one, false));
  EXPECT_FALSE(store_.openKey("two/missing/deeper", three, KEY_READ, &one, false));
  EXPECT_EQ(nullptr, three);
  EXPECT_FALSE(one.subKey("missing\\deeper", KEY_READ, false).isValid());
  // The failed opens left nothing open: `key` and `one` only.
  EXPECT_EQ(2u, reg_->openHandles());

  // An empty path names the parent itself.
  CRegistryKey self = one.subKey("", KEY_ALL_ACCESS, false);
  ASSERT_TRUE(self.isValid());
  EXPECT_TRUE(self.setDword("x", 3));
  DWORD x = 0;
  EXPECT_TRUE(one.getDword("x", x, 0));
  EXPECT_EQ(3u, x);
}

TEST_F(RegistryStoreTest, CopiedHandlesShareOneKeyClosedAtTheLastRelease) {
  auto first = std::make_unique<CRegistryKey>(store_.key("shared", KEY_ALL_ACCESS, true));
  EXPECT_EQ(1u, store_.openKeyCount());
  auto second = std::make_unique<CRegistryKey>(*first);
  CRegistryKey third;
  third = *second;
  third = third;  // assignment to itself changes nothing
  EXPECT_EQ(1u, store_.openKeyCount());
  EXPECT_EQ(1u, reg_->openHandles());
  const int closes = reg_->calls(FaultInjectingRegistry::kClose);

  first.reset();
  second.reset();
  EXPECT_EQ(closes, reg_->calls(FaultInjectingRegistry::kClose));
  EXPECT_TRUE(third.setDword("alive", 1));
  // Assigning over the last handle releases its key.
  third = CRegistryKey();
  EXPECT_EQ(0u, store_.openKeyCount());
  EXPECT_EQ(0u, reg_->openHandles());

  // Moving hands the reference over without closing anything.
  CRegistryKey a = store_.key("shared", KEY_ALL_ACCESS, false);
  CRegistryKey b(std::move(a));
  EXPECT_FALSE(a.isValid());
  EXPECT_EQ(1u, reg_->openHandles());
  b = store_.key("other", KEY_ALL_ACCESS, true);
  EXPECT_EQ(1u, store_.openKeyCount());
  EXPECT_EQ("other", b.name());
}

TEST_F(RegistryStoreTest, WritesUseTheRegistryLayoutsAndReadsTakeOnlyTheirType) {
  CRegistryKey k = store_.key("types", KEY_ALL_ACCESS, true);
  ASSERT_TRUE(k.setDword("d", 0x01020304) && k.setQword(L"q", 0x0102030405060708ull));
  ASSERT_TRUE(k.setString(L"s", L"D:\\\u00fcber \u20ac"));
  EXPECT_EQ(typed("d"), std::make_pair(DWORD{REG_DWORD}, dwordBytes(0x01020304)));
  EXPECT_EQ(typed("Q"), std::make_pair(DWORD{REG_QWORD}, qwordBytes(0x0102030405060708ull)));
  // (length + 1) x 2 bytes of UTF-16LE.
  EXPECT_EQ(typed("s"), std::make_pair(DWORD{REG_SZ}, utf16Bytes(L"D:\\\u00fcber \u20ac")));

  // What each getter gives for a stored value: the value, or -1 for a
  // failed read that gave the default (-2: it gave something else).
  const uint64_t big = 0x1122334455667788ull;
  struct Row {
    const char* name;
    DWORD type;
    std::vector<BYTE> bytes;
    int64_t dword, qwordNarrow, qwordWide;
    const wchar_t* text;
  } rows[] = {
      {"d", REG_DWORD, {}, 0x01020304, -1, -1, nullptr},  // written above
      {"q", REG_QWORD, {}, -1, 0x0102030405060708, 0x0102030405060708, nullptr},
      {"s", REG_SZ, {}, -1, -1, -1, L"D:\\\u00fcber \u20ac"},
      {"dword8", REG_DWORD, qwordBytes(5), -1, -1, -1, nullptr},
      {"bin8", REG_BINARY, qwordBytes(big), -1, static_cast<int64_t>(big), -1, nullptr},  // older 64-bit counters
      {"bin7", REG_BINARY, std::vector<BYTE>(7, 1), -1, -1, -1, nullptr},
      {"text", REG_SZ, utf16Bytes(L"12"), -1, -1, -1, L"12"},
      {"cut", REG_SZ, utf16Bytes(std::wstring(L"ab\0cd", 5)), -1, -1, -1, L"ab"},
      {"open", REG_SZ, utf16Bytes(L"xyz", false), -1, -1, -1, L"xyz"},
      {"odd", REG_SZ, {'x', 0, 'y'}, -1, -1, -1, L"x"},
      {"missing", REG_NONE, {}, -1, -1, -1, nullptr},
  };
  // got is read after the getter ran (arguments are evaluated in any order).
  auto result = [](bool ok, const auto& got, uint64_t def) -> int64_t { return ok ? static_cast<int64_t>(got) : got == def ? -1 : -2; };
  for (const Row& row : rows) {
    std::wstring name = widen(row.name);
    if (!row.bytes.empty()) setRaw("types", name, row.type, row.bytes);
    DWORD d = 0;
    uint64_t q = 0;
    std::wstring text;
    EXPECT_EQ(result(k.getDword(row.name, d, 77), d, 77), row.dword) << row.name;
    EXPECT_EQ(result(k.getQword(row.name, q, 78), q, 78), row.qwordNarrow) << row.name;
    EXPECT_EQ(result(k.getQword(name, q, 79), q, 79), row.qwordWide) << row.name;
    bool ok = k.getString(name, text, L"def");
    EXPECT_EQ(ok ? text : text == L"def" ? L"(default)" : L"(other)", row.text ? row.text : L"(default)") << row.name;
  }
}

TEST_F(RegistryStoreTest, InvalidHandlesTouchNothing) {
  CRegistryKey none;
  CRegistryKey missing = store_.key("not\\there", KEY_ALL_ACCESS, false);
  ASSERT_FALSE(missing.isValid());
  const int before = reg_->calls();

  for (CRegistryKey* k : {&none, &missing}) {
    DWORD d = 11;
    uint64_t q = 12;
    std::wstring s = L"kept";
    EXPECT_FALSE(k->getDword("x", d, 1));
    EXPECT_FALSE(k->getQword(L"x", q, 2));
    EXPECT_FALSE(k->getString(L"x", s, L"def"));
    // The outputs are left alone, not set to the default.
    EXPECT_EQ(11u, d);
    EXPECT_EQ(12u, q);
    EXPECT_EQ(L"kept", s);
    EXPECT_FALSE(k->setDword("x", 1));
    EXPECT_FALSE(k->setString(L"x", L"y"));
    EXPECT_FALSE(k->subKey("x", KEY_ALL_ACCESS, true).isValid());
    EXPECT_FALSE(k->subKeyAt(0, KEY_READ).isValid());
    EXPECT_FALSE(k->valueNameAt(0, s));
    EXPECT_FALSE(k->deleteValueAt(0));
    EXPECT_FALSE(k->deleteSubKey("x"));
    EXPECT_EQ("", k->name());
  }
  EXPECT_EQ(before, reg_->calls());
}

TEST_F(RegistryStoreTest, RegistryFailuresAreResults) {
  CRegistryKey k = store_.key("faults", KEY_ALL_ACCESS, true);
  k.setDword("v", 4);

  reg_->fail(FaultInjectingRegistry::kSet, ERROR_ACCESS_DENIED);
  EXPECT_FALSE(k.setDword("v", 5));
  reg_->fail(FaultInjectingRegistry::kQuery, ERROR_READ_FAULT);
  DWORD d = 0;
  EXPECT_FALSE(k.getDword("v", d, 9));
  EXPECT_EQ(9u, d);
  EXPECT_TRUE(k.getDword("v", d, 9));
  EXPECT_EQ(4u, d);

  // A component that can be neither opened nor created fails the whole path
  // and closes the components opened before it.
  reg_->fail(FaultInjectingRegistry::kCreate, ERROR_ACCESS_DENIED, false, "c");
  std::unique_ptr<CRegistryKey> key;
  EXPECT_FALSE(store_.openKey("a\\b\\c\\d", key, KEY_ALL_ACCESS, nullptr, true));
  EXPECT_EQ(nullptr, key);
  EXPECT_EQ(1u, reg_->openHandles());
  EXPECT_TRUE(store_.openKey("a\\b\\c\\d", key, KEY_ALL_ACCESS, nullptr, true));
  EXPECT_EQ("d", key->name());
}

}  // namespace
}  // namespace test
}  // namespace glidewell
