#include "config/registry_store.h"

#include <gtest/gtest.h>

#include "support/registry_fault_injection.h"
#include "support/registry_test_util.h"

namespace glidewell {
namespace test {
namespace {

class RegistryStoreTest : public ::testing::Test {
 protected:
  RegistryStoreTest()
      : memory_(RegistryBackend::newMemory()),
        reg_(std::make_shared<FaultInjectingRegistry>(memory_)),
        store_(std::make_unique<CRegistryStore>(HKEY_CURRENT_USER, reg_)) {}

  RawValue raw(const std::string& path, const std::wstring& name) {
    return getAt(*memory_, HKEY_CURRENT_USER, path, name);
  }

  std::shared_ptr<RegistryBackend> memory_;
  std::shared_ptr<FaultInjectingRegistry> reg_;
  std::unique_ptr<CRegistryStore> store_;
};

TEST_F(RegistryStoreTest, PathsSplitOnEitherSeparatorAndCloseWhatTheyPass) {
  std::unique_ptr<CRegistryKey> key;
  ASSERT_TRUE(store_->openKey("One/Two\\Three", key, KEY_ALL_ACCESS, nullptr, true));
  EXPECT_EQ("Three", key->name());
  // Three nested keys exist; only the last is still open.
  EXPECT_EQ(1u, reg_->openHandles());
  HKEY two = openPath(*memory_, HKEY_CURRENT_USER, "one\\two", false);
  ASSERT_NE(nullptr, two);
  EXPECT_EQ(std::vector<std::string>{"Three"}, subkeyNames(*memory_, two));
  memory_->closeKey(two);

  // Relative to a parent; and a path that does not exist, without create.
  CRegistryKey one = store_->key("ONE", KEY_ALL_ACCESS, false);
  std::unique_ptr<CRegistryKey> three;
  EXPECT_TRUE(store_->openKey("two/three", three, KEY_READ, &one, false));
  EXPECT_FALSE(store_->openKey("two/missing/deeper", three, KEY_READ, &one, false));
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
  auto first = std::make_unique<CRegistryKey>(store_->key("shared", KEY_ALL_ACCESS, true));
  EXPECT_EQ(1u, store_->openKeyCount());
  auto second = std::make_unique<CRegistryKey>(*first);
  CRegistryKey third;
  third = *second;
  third = third;  // assignment to itself changes nothing
  EXPECT_EQ(1u, store_->openKeyCount());
  EXPECT_EQ(1u, reg_->openHandles());
  const int closes = reg_->calls(FaultInjectingRegistry::kClose);

  first.reset();
  second.reset();
  EXPECT_EQ(closes, reg_->calls(FaultInjectingRegistry::kClose));
  EXPECT_TRUE(third.setDword("alive", 1));
  // Assigning over the last handle releases its key.
  third = CRegistryKey();
  EXPECT_EQ(0u, store_->openKeyCount());
  EXPECT_EQ(0u, reg_->openHandles());

  // Moving hands the reference over without closing anything.
  CRegistryKey a = store_->key("shared", KEY_ALL_ACCESS, false);
  CRegistryKey b(std::move(a));
  EXPECT_FALSE(a.isValid());
  EXPECT_EQ(1u, reg_->openHandles());
  b = store_->key("other", KEY_ALL_ACCESS, true);
  EXPECT_EQ(1u, store_->openKeyCount());
  EXPECT_EQ("other", b.name());
}

TEST_F(RegistryStoreTest, TypedReadsAcceptOnlyTheirType) {
  CRegistryKey k = store_->key("types", KEY_ALL_ACCESS, true);
  HKEY raw = openPath(*memory_, HKEY_CURRENT_USER, "types", false);
  put(*memory_, raw, L"text", REG_SZ, utf16Bytes(L"12"));
  put(*memory_, raw, L"bin8", REG_BINARY, qwordBytes(0x1122334455667788ull));
  put(*memory_, raw, L"bin7", REG_BINARY, std::vector<BYTE>(7, 1));
  put(*memory_, raw, L"dword8", REG_DWORD, qwordBytes(5));
  put(*memory_, raw, L"cut", REG_SZ, utf16Bytes(std::wstring(L"ab\0cd", 5)));
  put(*memory_, raw, L"open", REG_SZ, utf16Bytes(L"xyz", false));

  DWORD d = 0;
  EXPECT_FALSE(k.getDword("text", d, 77));
  EXPECT_EQ(77u, d);
  EXPECT_FALSE(k.getDword(L"dword8", d, 78));
  EXPECT_EQ(78u, d);
  EXPECT_FALSE(k.getDword("missing", d, 79));
  EXPECT_EQ(79u, d);

  uint64_t q = 0;
  EXPECT_TRUE(k.getQword("bin8", q, 0));
  EXPECT_EQ(0x1122334455667788ull, q);
  EXPECT_FALSE(k.getQword(L"bin8", q, 5));
  EXPECT_EQ(5u, q);
  EXPECT_FALSE(k.getQword("bin7", q, 6));
  EXPECT_EQ(6u, q);
  EXPECT_FALSE(k.getQword("text", q, 7));

  std::wstring s;
  EXPECT_FALSE(k.getString(L"bin8", s, L"def"));
  EXPECT_EQ(L"def", s);
  EXPECT_TRUE(k.getString(L"cut", s, L""));
  EXPECT_EQ(L"ab", s);
  EXPECT_TRUE(k.getString(L"open", s, L""));
  EXPECT_EQ(L"xyz", s);

  memory_->closeKey(raw);
}

TEST_F(RegistryStoreTest, WritesUseTheRegistryLayouts) {
  CRegistryKey k = store_->key("layout", KEY_ALL_ACCESS, true);
  ASSERT_TRUE(k.setDword("d", 0x01020304));
  ASSERT_TRUE(k.setQword(L"q", 0x0102030405060708ull));
  ASSERT_TRUE(k.setString(L"s", L"D:\\\u00fcber \u20ac"));

  RawValue v = raw("layout", L"d");
  EXPECT_EQ(REG_DWORD, v.type);
  EXPECT_EQ(dwordBytes(0x01020304), v.data);
  v = raw("layout", L"Q");
  EXPECT_EQ(REG_QWORD, v.type);
  EXPECT_EQ(qwordBytes(0x0102030405060708ull), v.data);
  v = raw("layout", L"s");
  EXPECT_EQ(REG_SZ, v.type);
  EXPECT_EQ(utf16Bytes(L"D:\\\u00fcber \u20ac"), v.data);  // (length + 1) x 2 bytes
  EXPECT_EQ(20u, v.data.size());

  DWORD d = 0;
  uint64_t q = 0;
  std::wstring s;
  EXPECT_TRUE(k.getDword(L"D", d, 0));
  EXPECT_TRUE(k.getQword("q", q, 0));
  EXPECT_TRUE(k.getString(L"S", s, L""));
  EXPECT_EQ(0x01020304u, d);
  EXPECT_EQ(0x0102030405060708ull, q);
  EXPECT_EQ(L"D:\\\u00fcber \u20ac", s);
}

TEST_F(RegistryStoreTest, EnumerationAndDeletion) {
  CRegistryKey k = store_->key("list", KEY_ALL_ACCESS, true);
  for (const char* name : {"b", "A", "c"}) k.subKey(name, KEY_ALL_ACCESS, true);
  k.setDword("v2", 2);
  k.setDword("V1", 1);
  k.setString(L"v3", L"three");

  EXPECT_EQ("A", k.subKeyAt(0, KEY_READ).name());
  EXPECT_EQ("c", k.subKeyAt(2, KEY_READ).name());
  EXPECT_FALSE(k.subKeyAt(3, KEY_READ).isValid());
  std::wstring name;
  EXPECT_TRUE(k.valueNameAt(0, name));
  EXPECT_EQ(L"V1", name);
  EXPECT_FALSE(k.valueNameAt(3, name));

  EXPECT_TRUE(k.deleteSubKey("B"));
  EXPECT_FALSE(k.deleteSubKey("b"));
  EXPECT_EQ("c", k.subKeyAt(1, KEY_READ).name());

  int deleted = 0;
  while (k.deleteValueAt(0)) ++deleted;
  EXPECT_EQ(3, deleted);
  EXPECT_FALSE(k.valueNameAt(0, name));
}

TEST_F(RegistryStoreTest, InvalidHandlesTouchNothing) {
  CRegistryKey none;
  CRegistryKey missing = store_->key("not\\there", KEY_ALL_ACCESS, false);
  ASSERT_FALSE(missing.isValid());
  int before = 0;
  for (int op = 0; op < FaultInjectingRegistry::kOpCount; ++op) before += reg_->calls(FaultInjectingRegistry::Op(op));

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
  int after = 0;
  for (int op = 0; op < FaultInjectingRegistry::kOpCount; ++op) after += reg_->calls(FaultInjectingRegistry::Op(op));
  EXPECT_EQ(before, after);
}

TEST_F(RegistryStoreTest, RegistryFailuresAreResults) {
  CRegistryKey k = store_->key("faults", KEY_ALL_ACCESS, true);
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
  reg_->fail(FaultInjectingRegistry::kCreate, ERROR_ACCESS_DENIED, 1, false, "c");
  std::unique_ptr<CRegistryKey> key;
  EXPECT_FALSE(store_->openKey("a\\b\\c\\d", key, KEY_ALL_ACCESS, nullptr, true));
  EXPECT_EQ(nullptr, key);
  EXPECT_EQ(1u, reg_->openHandles());
  EXPECT_TRUE(store_->openKey("a\\b\\c\\d", key, KEY_ALL_ACCESS, nullptr, true));
  EXPECT_EQ("d", key->name());
}

}  // namespace
}  // namespace test
}  // namespace glidewell
