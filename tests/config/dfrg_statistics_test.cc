#include "config/dfrg_statistics.h"

#include <gtest/gtest.h>

#include "support/registry_fake_env.h"
#include "support/registry_fault_injection.h"
#include "support/registry_test_util.h"

namespace glidewell {
namespace test {
namespace {

const std::string kStats = "SOFTWARE\\quorvane\\Quorvane Glidewell\\statistics";
const std::string kComplete = kStats + "\\complete";
const std::string kDaily = kStats + "\\daily";

class DfrgStatisticsTest : public ::testing::Test {
 protected:
  DfrgStatisticsTest()
      : memory_(RegistryBackend::newMemory()),
        reg_(std::make_shared<FaultInjectingRegistry>(memory_)),
        scopedEnv_(&env_) {
    RegistryBackend::setCurrent(reg_);
    env_.setLocalTime(2024, 3, 3, 10);
  }
  ~DfrgStatisticsTest() override {
    CDfrgStatistics::destroy();
    RegistryBackend::setCurrent(nullptr);
  }

  std::unique_ptr<CDfrgStatistics> make() { return std::make_unique<CDfrgStatistics>(HKEY_CURRENT_USER, ""); }

  // A stored counter; -1 when missing or not a REG_QWORD.
  int64_t counter(const std::string& key, const wchar_t* name) {
    RawValue v = getAt(*memory_, HKEY_CURRENT_USER, key, name);
    if (v.result != ERROR_SUCCESS || v.type != REG_QWORD || v.data.size() != 8) return -1;
    int64_t n = 0;
    for (int i = 7; i >= 0; --i) n = (n << 8) | v.data[i];
    return n;
  }
  int64_t processed(const std::string& key) { return counter(key, L"Processed Files"); }

  void setRaw(const std::string& key, const std::wstring& name, DWORD type, const std::vector<BYTE>& data) {
    HKEY k = openPath(*memory_, HKEY_CURRENT_USER, key, true);
    ASSERT_NE(nullptr, k);
    put(*memory_, k, name, type, data);
    memory_->closeKey(k);
  }
  std::vector<std::string> dailyKeys() {
    HKEY k = openPath(*memory_, HKEY_CURRENT_USER, kDaily, false);
    if (k == nullptr) return {};
    std::vector<std::string> names = subkeyNames(*memory_, k);
    memory_->closeKey(k);
    return names;
  }
  std::vector<std::wstring> statisticsValues() {
    HKEY k = openPath(*memory_, HKEY_CURRENT_USER, kStats, false);
    std::vector<std::wstring> names = valueNames(*memory_, k);
    memory_->closeKey(k);
    return names;
  }

  RegistryFakeEnv env_;
  std::shared_ptr<RegistryBackend> memory_;
  std::shared_ptr<FaultInjectingRegistry> reg_;
  ScopedEnvOverride scopedEnv_;
};

TEST_F(DfrgStatisticsTest, NothingIsReadBeforeTheFirstUse) {
  auto stats = make();
  EXPECT_EQ(0, reg_->calls(FaultInjectingRegistry::kQuery));
  EXPECT_NE(nullptr, openPath(*memory_, HKEY_CURRENT_USER, kComplete, false));
  EXPECT_TRUE(dailyKeys().empty());
  stats->addProcessed(1);
  EXPECT_GT(reg_->calls(FaultInjectingRegistry::kQuery), 0);
  EXPECT_EQ(std::vector<std::string>{"2024-03-03"}, dailyKeys());
}

TEST_F(DfrgStatisticsTest, FlushesWriteAtMostOncePerSecond) {
  auto stats = make();
  stats->addProcessed(1);
  stats->flush(false);  // the first flush always writes
  EXPECT_EQ(1, processed(kStats));
  EXPECT_EQ(1, processed(kDaily + "\\2024-03-03"));
  EXPECT_EQ(1, processed(kComplete));
  const int sets = reg_->calls(FaultInjectingRegistry::kSet);

  stats->addProcessed(1);
  env_.advance(500);
  stats->flush(false);
  stats->addProcessed(1);
  env_.advance(500);  // 1000 ms: still not more than the interval
  stats->flush(false);
  EXPECT_EQ(sets, reg_->calls(FaultInjectingRegistry::kSet));
  EXPECT_EQ(1, processed(kStats));

  env_.advance(1);
  stats->flush(false);
  EXPECT_EQ(3, processed(kStats));
  EXPECT_EQ(3, processed(kComplete));

  // Forced flushes ignore the interval.
  stats->addMoved(2);
  stats->addDefragged(4);
  stats->flush(true);
  EXPECT_EQ(2, counter(kStats, L"Moved Files"));
  EXPECT_EQ(4, counter(kDaily + "\\2024-03-03", L"Defragged Files"));

  // The millisecond clock wraps; the interval is measured across the wrap.
  env_.setTime(0xFFFFFE00u);
  stats->flush(true);
  stats->addProcessed(1);
  env_.setTime(0x100);
  stats->flush(false);
  EXPECT_EQ(3, processed(kStats));
  env_.setTime(0x300);
  stats->flush(false);
  EXPECT_EQ(4, processed(kStats));
}

TEST_F(DfrgStatisticsTest, StoredCountersLoadAndMistypedOnesStartAtZero) {
  setRaw(kStats, L"Processed Files", REG_DWORD, dwordBytes(50));
  setRaw(kStats, L"Moved Files", REG_QWORD, qwordBytes(7));
  setRaw(kComplete, L"Processed Files", REG_QWORD, qwordBytes(100));
  setRaw(kComplete, L"Moved Files", REG_BINARY, qwordBytes(9));  // wide names take REG_QWORD only
  setRaw(kDaily + "\\2024-03-03", L"Processed Files", REG_BINARY, qwordBytes(5));  // narrow names take 8-byte binary
  auto stats = make();
  stats->addProcessed(1);
  stats->addMoved(1);
  EXPECT_EQ(1u, stats->currentCounters().processed);
  EXPECT_EQ(8u, stats->currentCounters().moved);
  EXPECT_EQ(101u, stats->completeCounters().processed);
  EXPECT_EQ(1u, stats->completeCounters().moved);
  EXPECT_EQ(6u, stats->dailyCounters().processed);

  stats->flush(false);
  EXPECT_EQ(1, processed(kStats));  // now a REG_QWORD
  EXPECT_EQ(1, counter(kComplete, L"Moved Files"));
  EXPECT_EQ(6, processed(kDaily + "\\2024-03-03"));
}

TEST_F(DfrgStatisticsTest, TheDayRollsOnlyAfterAMinuteWithoutFlush) {
  auto stats = make();
  stats->addProcessed(5);
  stats->flush(true);
  // Made after the load's purge, which drops keys of days still to come.
  setRaw(kDaily + "\\2024-03-04", L"Processed Files", REG_QWORD, qwordBytes(100));

  // Past midnight, but flushing every half minute: still counted on the old day.
  env_.setLocalTime(2024, 3, 4, 0, 0, 10);
  env_.advance(30000);
  stats->addProcessed(1);
  stats->flush(false);
  EXPECT_EQ(6, processed(kDaily + "\\2024-03-03"));
  EXPECT_EQ(100, processed(kDaily + "\\2024-03-04"));

  // More than a minute without a flush: what was counted meanwhile closes the
  // old day, and the new day starts from 0 whatever its key held.
  env_.advance(60001);
  stats->addProcessed(2);
  stats->flush(false);
  EXPECT_EQ(8, processed(kDaily + "\\2024-03-03"));
  EXPECT_EQ(0, processed(kDaily + "\\2024-03-04"));
  EXPECT_EQ(8, processed(kStats));
  EXPECT_EQ(8, processed(kComplete));

  stats->addProcessed(1);
  stats->flush(true);
  EXPECT_EQ(1, processed(kDaily + "\\2024-03-04"));
  EXPECT_EQ(8, processed(kDaily + "\\2024-03-03"));
}

TEST_F(DfrgStatisticsTest, PurgingKeepsTodayAndTheSevenDaysBefore) {
  // Today is 2024-03-03; the week before it crosses the leap day.
  for (const char* day : {"2024-02-22", "2024-02-23", "2024-02-24", "2024-02-25", "2024-02-26", "2024-02-27",
                          "2024-02-28", "2024-02-29", "2024-03-01", "2024-03-02", "2024-03-03", "2024-03-04",
                          "2024-03-06", "2024-02-30", "notes"}) {
    setRaw(kDaily + "\\" + day, L"Processed Files", REG_QWORD, qwordBytes(1));
  }
  auto stats = make();
  stats->getStatus();  // loads, and purges once
  std::vector<std::string> afterOne = dailyKeys();
  EXPECT_LT(afterOne.size(), 15u);

  // A deleted key's successor slides into its index and waits for the next purge.
  for (int i = 0; i < 6; ++i) {
    env_.advance(60001);
    stats->flush(false);
  }
  EXPECT_EQ((std::vector<std::string>{"2024-02-25", "2024-02-26", "2024-02-27", "2024-02-28", "2024-02-29",
                                      "2024-02-30", "2024-03-01", "2024-03-02", "2024-03-03", "notes"}),
            dailyKeys());
}

TEST_F(DfrgStatisticsTest, ResetsClearWhatTheySay) {
  auto stats = make();
  stats->setStatus(3);
  stats->setLastFile(L"C:\\dir\\file.bin");
  stats->addProcessed(4);
  stats->flush(true);
  RawValue last = getAt(*memory_, HKEY_CURRENT_USER, kStats, L"Last File");
  EXPECT_EQ(REG_SZ, last.type);
  EXPECT_EQ(utf16Bytes(L"C:\\dir\\file.bin"), last.data);
  EXPECT_EQ(REG_DWORD, getAt(*memory_, HKEY_CURRENT_USER, kStats, L"Status").type);

  stats->resetRun();
  EXPECT_EQ(0, processed(kStats));
  EXPECT_EQ(4, processed(kComplete));
  EXPECT_EQ(4, processed(kDaily + "\\2024-03-03"));

  stats->resetAll();
  EXPECT_EQ((std::vector<std::wstring>{L"Defragged Files", L"Moved Files", L"Processed Files"}), statisticsValues());
  EXPECT_EQ(0, processed(kComplete));
  EXPECT_EQ(0, processed(kDaily + "\\2024-03-03"));
  EXPECT_EQ(3, stats->getStatus());

  // An unchanged status is not written again; a new one is.
  stats->setStatus(3);
  stats->flush(true);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, getAt(*memory_, HKEY_CURRENT_USER, kStats, L"Status").result);
  stats->setStatus(4);
  stats->flush(true);
  EXPECT_EQ(dwordBytes(4), getAt(*memory_, HKEY_CURRENT_USER, kStats, L"Status").data);
}

TEST_F(DfrgStatisticsTest, FailedWritesAreTriedAgain) {
  auto stats = make();
  EXPECT_EQ(0, stats->getStatus());
  reg_->fail(FaultInjectingRegistry::kSet, ERROR_ACCESS_DENIED, 1, false, "Last File");
  reg_->fail(FaultInjectingRegistry::kSet, ERROR_ACCESS_DENIED, 1, false, "Processed Files");
  stats->setLastFile(L"C:\\a");
  stats->addProcessed(2);
  stats->flush(true);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, getAt(*memory_, HKEY_CURRENT_USER, kStats, L"Last File").result);
  EXPECT_EQ(-1, processed(kStats));
  stats->flush(true);
  EXPECT_EQ(utf16Bytes(L"C:\\a"), getAt(*memory_, HKEY_CURRENT_USER, kStats, L"Last File").data);
  EXPECT_EQ(2, processed(kStats));
}

TEST_F(DfrgStatisticsTest, ADeadRegistryThrowsNothingAndCountingGoesOn) {
  for (auto op : {FaultInjectingRegistry::kOpen, FaultInjectingRegistry::kCreate, FaultInjectingRegistry::kSet}) {
    reg_->fail(op, ERROR_ACCESS_DENIED, 1, true);
  }
  std::unique_ptr<CDfrgStatistics> stats;
  ASSERT_NO_THROW(stats = make());
  EXPECT_NO_THROW({
    stats->addProcessed(3);
    stats->setLastFile(L"x");
    stats->setStatus(1);
    stats->flush(true);
    stats->resetRun();
    stats->addMoved(1);
    stats->flush(false);
  });
  EXPECT_EQ(1u, stats->currentCounters().moved);
  EXPECT_EQ(3u, stats->completeCounters().processed);
  EXPECT_EQ(0u, reg_->openHandles());
}

TEST_F(DfrgStatisticsTest, TheProcessWideObjectLivesFromCreateToDestroy) {
  EXPECT_EQ(nullptr, CDfrgStatistics::instance());
  CDfrgStatistics::create(HKEY_CURRENT_USER, "");
  CDfrgStatistics* first = CDfrgStatistics::instance();
  ASSERT_NE(nullptr, first);
  EXPECT_GT(reg_->calls(FaultInjectingRegistry::kQuery), 0);  // instance() loads
  first->addProcessed(1);
  first->flush(true);
  CDfrgStatistics::destroy();
  EXPECT_EQ(nullptr, CDfrgStatistics::instance());
  EXPECT_EQ(0u, reg_->openHandles());

  CDfrgStatistics::create(HKEY_CURRENT_USER, "Other\\Path");
  ASSERT_NE(nullptr, CDfrgStatistics::instance());
  EXPECT_NE(nullptr, openPath(*memory_, HKEY_CURRENT_USER, "Other\\Path\\statistics\\complete", false));
  // Another object's death does not clear the process-wide one.
  make().reset();
  EXPECT_NE(nullptr, CDfrgStatistics::instance());
}

}  // namespace
}  // namespace test
}  // namespace glidewell
