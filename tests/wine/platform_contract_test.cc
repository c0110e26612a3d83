// One contract suite for the operating-system seam, run against both of its
// implementations: platform/posix in the Linux build (label "unit") and
// platform/win32 under Wine (label "wine"). What the engine relies on is
// checked here once, so the two cannot drift apart.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>

#include "platform/env.h"
#include "platform/sync.h"
#include "platform/text.h"

namespace glidewell {
namespace {

Env& env() { return *Env::current(); }

// Polls until cond holds or about two seconds have passed.
template <typename Cond>
bool eventually(Cond cond) {
  for (int i = 0; i < 200 && !cond(); ++i) env().sleep(10);
  return cond();
}

TEST(EventContract, ManualResetStaysSignalledUntilResetAutoResetIsConsumedByAWait) {
  Event e(true, false);
  EXPECT_FALSE(e.isSet());
  EXPECT_EQ(WaitResult::kTimeout, e.wait(0));
  e.set();
  EXPECT_EQ(WaitResult::kSignaled, e.wait(0));
  EXPECT_EQ(WaitResult::kSignaled, e.wait(kWaitInfinite));
  EXPECT_TRUE(e.isSet());
  e.reset();
  EXPECT_FALSE(e.isSet());
  EXPECT_EQ(WaitResult::kTimeout, e.wait(10));

  Event autoReset(false, true);
  EXPECT_TRUE(autoReset.isSet());
  EXPECT_TRUE(autoReset.isSet());  // a test does not consume it
  EXPECT_EQ(WaitResult::kSignaled, autoReset.wait(0));
  EXPECT_FALSE(autoReset.isSet());
  EXPECT_EQ(WaitResult::kTimeout, autoReset.wait(0));
  EXPECT_NE(e.handleValue(), autoReset.handleValue());
}

TEST(EventContract, AutoResetSetReleasesExactlyOneWaiter) {
  Event e(false, false);
  std::atomic<int> woken{0};
  auto waiter = [&] {
    e.wait(kWaitInfinite);
    ++woken;
  };
  auto a = Thread::start(waiter);
  auto b = Thread::start(waiter);
  env().sleep(50);  // both are waiting (or about to; a set before the wait is kept)
  e.set();
  ASSERT_TRUE(eventually([&] { return woken.load() == 1; }));
  env().sleep(50);
  EXPECT_EQ(1, woken.load());
  e.set();
  a->join();
  b->join();
  EXPECT_EQ(2, woken.load());
  EXPECT_FALSE(e.isSet());
}

TEST(EventContract, WaitReturnsAfterItsTimeout) {
  Event e(true, false);
  uint32_t start = env().timeGetTime();
  EXPECT_EQ(WaitResult::kTimeout, e.wait(100));
  uint32_t elapsed = env().timeGetTime() - start;
  EXPECT_GE(elapsed, 90u);
  EXPECT_LT(elapsed, 5000u);
}

TEST(EventContract, WaitAnyReturnsTheLowestSignalledConsumesOnlyThatAndWakesOnASet) {
  Event manual(true, false), autoB(false, false), autoC(false, false);
  Event* events[] = {&manual, &autoB, &autoC};
  EXPECT_EQ(-1, Event::waitAny(events, 3, 0));
  autoB.set();
  autoC.set();
  EXPECT_EQ(1, Event::waitAny(events, 3, 0));
  EXPECT_FALSE(autoB.isSet());
  EXPECT_TRUE(autoC.isSet());
  EXPECT_EQ(2, Event::waitAny(events, 3, 0));
  EXPECT_EQ(-1, Event::waitAny(events, 3, 20));
  manual.set();
  autoC.set();
  EXPECT_EQ(0, Event::waitAny(events, 3, 0));
  EXPECT_EQ(0, Event::waitAny(events, 3, 0));  // manual reset: still set
  EXPECT_TRUE(autoC.isSet());

  manual.reset();
  autoC.wait(0);
  auto setter = Thread::start([&] {
    env().sleep(30);
    autoB.set();
  });
  EXPECT_EQ(1, Event::waitAny(events, 3, kWaitInfinite));  // woken by another thread
  setter->join();
}

TEST(RecursiveLockContract, ReentrantForItsOwnerExclusiveForOthers) {
  RecursiveLock lock;
  std::atomic<bool> entered{false};
  lock.lock();
  lock.lock();  // a second take by the owner must not block
  auto other = Thread::start([&] {
    ScopedLock g(lock);
    entered = true;
  });
  lock.unlock();
  env().sleep(50);
  EXPECT_FALSE(entered.load()) << "the lock is still held once";
  lock.unlock();
  other->join();
  EXPECT_TRUE(entered.load());

  long counter = 0;  // plain: only the lock protects it
  auto add = [&] {
    for (int i = 0; i < 20000; ++i) {
      ScopedLock g(lock);
      ++counter;
    }
  };
  auto t1 = Thread::start(add);
  auto t2 = Thread::start(add);
  t1->join();
  t2->join();
  EXPECT_EQ(40000, counter);
}

TEST(ThreadContract, RunsOnItsOwnThreadUntilJoinedOrDestroyed) {
  Event release(true, false);
  std::atomic<uint32_t> seenId{0};
  auto t = Thread::start([&] {
    seenId = currentThreadId();
    release.wait(kWaitInfinite);
  });
  ASSERT_TRUE(eventually([&] { return seenId.load() != 0; }));
  EXPECT_EQ(t->id(), seenId.load());
  EXPECT_NE(currentThreadId(), seenId.load());
  EXPECT_TRUE(t->isAlive());
  release.set();
  t->join();
  EXPECT_FALSE(t->isAlive());
  t->join();  // a second join returns at once

  std::atomic<bool> done{false};
  {
    auto waited = Thread::start([&] {
      env().sleep(50);
      done = true;
    });
  }
  EXPECT_TRUE(done.load()) << "destroying a thread waits for it";
}

TEST(TextContract, NarrowAndWidenRoundTrip) {
  EXPECT_EQ("", narrow(L""));
  EXPECT_EQ(L"", widen(""));
  EXPECT_EQ("state\\resumeInfo", narrow(L"state\\resumeInfo"));
  EXPECT_EQ(L"C:\\dir\\file.txt", widen("C:\\dir\\file.txt"));
  // e-acute exists in every ANSI code page the engine meets and in UTF-8.
  const std::wstring accented = L"caf\u00e9";
  EXPECT_EQ(accented, widen(narrow(accented)));
  EXPECT_NE(narrow(accented), "caf");
}

class EnvFileContract : public testing::Test {
 protected:
  void SetUp() override {
    static int counter = 0;
    name_ = testing::TempDir() + "gw_contract_" + std::to_string(env().tickCount()) + "_" +
            std::to_string(currentThreadId()) + "_" + std::to_string(++counter);
    dir_ = widen(name_) + L"\\";
    ASSERT_TRUE(env().createDirectory(dir_));
  }
  // Env cannot remove a directory; the test's own clean-up does not need it to.
  void TearDown() override { std::filesystem::remove_all(name_); }

  std::string readAll(const std::wstring& path) {
    DWORD error = 0;
    auto f = env().openFile(path, FileOpen::kReadExisting, &error);
    if (f == nullptr) return "<open error " + std::to_string(error) + ">";
    std::string out;
    char buf[7];  // small on purpose: several reads per file
    uint32_t got = 0;
    while (f->read(buf, sizeof(buf), &got) && got > 0) out.append(buf, got);
    return out;
  }

  bool writeAll(File& f, const std::string& text) {
    uint32_t done = 0;
    return f.write(text.data(), static_cast<uint32_t>(text.size()), &done) && done == text.size();
  }

  std::string name_;
  std::wstring dir_;
};

TEST_F(EnvFileContract, CreateAlwaysReplacesTheFile) {
  {
    auto f = env().openFile(dir_ + L"a.bin", FileOpen::kCreateAlways, nullptr);
    ASSERT_NE(nullptr, f);
    ASSERT_TRUE(writeAll(*f, "hello, world"));
    EXPECT_TRUE(f->flush());
  }
  auto f = env().openFile(dir_ + L"a.bin", FileOpen::kCreateAlways, nullptr);
  ASSERT_NE(nullptr, f);
  ASSERT_TRUE(writeAll(*f, "hi"));
  uint64_t size = 0;
  ASSERT_TRUE(f->size(&size));
  EXPECT_EQ(2u, size);
  f.reset();
  EXPECT_EQ("hi", readAll(dir_ + L"a.bin"));
}

TEST_F(EnvFileContract, ALogFileIsReplacedAndReadableWhileOpen) {
  std::wstring path = dir_ + L"log.txt";
  {
    auto old = env().openFile(path, FileOpen::kCreateShareRead, nullptr);
    ASSERT_NE(nullptr, old);
    ASSERT_TRUE(writeAll(*old, "the previous run"));
  }
  auto log = env().openFile(path, FileOpen::kCreateShareRead, nullptr);
  ASSERT_NE(nullptr, log);
  ASSERT_TRUE(writeAll(*log, "Log started\r\n"));
  EXPECT_TRUE(log->flush());
  EXPECT_EQ("Log started\r\n", readAll(path));
}

TEST_F(EnvFileContract, AppendWritesLandAtTheEndEvenWithTwoWriters) {
  std::wstring path = dir_ + L"log.txt";
  auto first = env().openFile(path, FileOpen::kAppendOrCreate, nullptr);
  ASSERT_NE(nullptr, first);
  ASSERT_TRUE(writeAll(*first, "ab"));
  auto second = env().openFile(path, FileOpen::kAppendOrCreate, nullptr);
  ASSERT_NE(nullptr, second) << "two appenders may share one log file";
  ASSERT_TRUE(writeAll(*second, "cd"));
  ASSERT_TRUE(writeAll(*first, "ef"));
  EXPECT_TRUE(first->flush());
  EXPECT_EQ("abcdef", readAll(path)) << "a reader may open the file while it is being appended to";
  uint64_t size = 0;
  ASSERT_TRUE(second->size(&size));
  EXPECT_EQ(6u, size);
}

TEST_F(EnvFileContract, RuntimeStreamsReadWhatTheyWrote) {
  std::FILE* out = env().openStream(dir_ + L"a.bin", "wb");
  ASSERT_NE(nullptr, out);
  const char data[] = "line\r\nbinary\0tail";
  EXPECT_EQ(sizeof(data), std::fwrite(data, 1, sizeof(data), out));
  EXPECT_EQ(0, std::fclose(out));
  EXPECT_EQ(std::string(data, sizeof(data)), readAll(dir_ + L"a.bin")) << "binary mode keeps every byte";
  EXPECT_EQ(nullptr, env().openStream(dir_ + L"gone", "rb"));
}

TEST_F(EnvFileContract, FailuresReportWin32ErrorNumbers) {
  DWORD error = 0;
  EXPECT_EQ(nullptr, env().openFile(dir_ + L"gone", FileOpen::kReadExisting, &error));
  EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), error);
  error = 0;
  EXPECT_EQ(nullptr, env().openFile(dir_ + L"no-such-dir\\x", FileOpen::kCreateAlways, &error));
  EXPECT_EQ(static_cast<DWORD>(ERROR_PATH_NOT_FOUND), error);
  error = 0;
  EXPECT_EQ(nullptr, env().openFile(dir_, FileOpen::kReadExisting, &error)) << "a directory is not a file";
  EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), error);
  EXPECT_FALSE(env().createDirectory(dir_)) << "it exists already";
  EXPECT_FALSE(env().deleteFile(dir_ + L"gone"));

  auto f = env().openFile(dir_ + L"gone", FileOpen::kCreateAlways, nullptr);
  ASSERT_NE(nullptr, f);
  f.reset();
  EXPECT_TRUE(env().deleteFile(dir_ + L"gone"));
  EXPECT_EQ("<open error 2>", readAll(dir_ + L"gone"));
  EXPECT_FALSE(env().currentDirectory().empty());
}

TEST(EnvClockContract, FileTimesCountFrom1601) {
  SYSTEMTIME t{};
  t.wYear = 2000;
  t.wMonth = 1;
  t.wDay = 1;
  uint64_t ft = 0;
  ASSERT_TRUE(env().systemTimeToFileTime(t, &ft));
  EXPECT_EQ(125911584000000000ull, ft);
  t.wMonth = 2;
  t.wDay = 29;
  t.wHour = 23;
  t.wMinute = 59;
  t.wSecond = 59;
  t.wMilliseconds = 999;
  ASSERT_TRUE(env().systemTimeToFileTime(t, &ft)) << "2000 is a leap year";
  EXPECT_EQ(125911584000000000ull + (60ull * 86400 - 1) * 10000000 + 9990000, ft);
  // A month past 12 is refused everywhere. (A day past the month's end is
  // refused by Windows but accepted by Wine, so it is no part of the contract.)
  t.wMonth = 13;
  t.wDay = 1;
  EXPECT_FALSE(env().systemTimeToFileTime(t, &ft));
}

TEST(EnvClockContract, ClocksAdvanceAndAgree) {
  uint32_t mm = env().timeGetTime(), tick = env().tickCount();
  env().sleep(60);
  EXPECT_GE(env().timeGetTime() - mm, 50u);
  EXPECT_LT(env().timeGetTime() - mm, 10000u);
  EXPECT_GE(env().tickCount() - tick, 40u);  // GetTickCount moves in 10-16 ms steps
  // Local time and UTC differ by the zone offset only, at most 14 hours.
  uint64_t local = 0;
  ASSERT_TRUE(env().systemTimeToFileTime(env().localTime(), &local));
  uint64_t utc = env().fileTimeNow();
  uint64_t diff = local > utc ? local - utc : utc - local;
  EXPECT_LE(diff, 14ull * 3600 * 10000000 + 60ull * 10000000);
}

TEST(EnvPipeContract, AMissingPipeIsNotFound) {
  const std::wstring name = L"\\\\.\\pipe\\GlidewellContractNoSuchPipe";
  DWORD error = 0;
  EXPECT_EQ(nullptr, env().openPipeClient(name, &error));
  EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), error);
  EXPECT_FALSE(env().waitNamedPipe(name, 30));
}

}  // namespace
}  // namespace glidewell
