// What only the SQLite registry has to prove: a reader in another connection
// is not blocked, a file that is not ours is refused and left alone, values
// survive the process and a killed writer never leaves a torn value, and the
// system registry follows the install directory.
#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>

#include "platform/env.h"
#include "platform/posix/registry_sqlite.h"
#include "support/fake_env.h"
#include "support/registry_test_util.h"
#include "support/temp_dir.h"

namespace glidewell {
namespace test {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class SqliteRegistryTest : public ::testing::Test {
 protected:
  std::shared_ptr<RegistryBackend> open() {
    std::string error;
    auto r = openSqliteRegistry(path(), &error);
    EXPECT_TRUE(r) << error;
    return r;
  }
  std::string path() const { return dir_.file("registry.db"); }

  TempDir dir_;
};

TEST_F(SqliteRegistryTest, ConnectionsShareWritesAndReadersAreNotBlocked) {
  auto engine = open();
  auto frontEnd = open();
  HKEY w = openPath(*engine, HKEY_CURRENT_USER, "stats", true);
  HKEY r = openPath(*frontEnd, HKEY_CURRENT_USER, "stats", false);
  ASSERT_NE(nullptr, r);
  put(*engine, w, L"n", REG_QWORD, qwordBytes(1));
  EXPECT_EQ(qwordBytes(1), get(*frontEnd, r, L"n").data);

  // A third connection holds a read transaction open (a front end in the
  // middle of reading); the engine still commits, and the reader keeps its
  // snapshot until it ends.
  sqlite3* raw = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path().c_str(), &raw));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(raw, "BEGIN; SELECT count(*) FROM registry_values;", nullptr, nullptr, nullptr));
  EXPECT_EQ(ERROR_SUCCESS, put(*engine, w, L"n", REG_QWORD, qwordBytes(2)));
  EXPECT_EQ(qwordBytes(2), get(*frontEnd, r, L"n").data);
  sqlite3_exec(raw, "COMMIT", nullptr, nullptr, nullptr);

  // And while another connection holds the write lock, readers still read.
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(raw, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr));
  EXPECT_EQ(qwordBytes(2), get(*frontEnd, r, L"n").data);
  sqlite3_exec(raw, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(raw);

  engine->closeKey(w);
  frontEnd->closeKey(r);
}

TEST_F(SqliteRegistryTest, FilesThatAreNotARegistryAreRefusedAndKeptIntact) {
  {
    std::ofstream out(path(), std::ios::binary);
    out << "this is not a database, but it is somebody's file\n";
  }
  std::string before = readFile(path());
  std::string error;
  EXPECT_EQ(nullptr, openSqliteRegistry(path(), &error));
  EXPECT_FALSE(error.empty());
  EXPECT_TRUE(before == readFile(path())) << "the file was changed";

  // Another program's SQLite database.
  std::string other = dir_.file("other.db");
  sqlite3* raw = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(other.c_str(), &raw));
  sqlite3_exec(raw, "CREATE TABLE notes(x); INSERT INTO notes VALUES (1);", nullptr, nullptr, nullptr);
  sqlite3_close(raw);
  std::string otherBefore = readFile(other);
  error.clear();
  EXPECT_EQ(nullptr, openSqliteRegistry(other, &error));
  EXPECT_NE(std::string::npos, error.find("another program")) << error;
  EXPECT_TRUE(otherBefore == readFile(other)) << "the other database was changed";

  error.clear();
  EXPECT_EQ(nullptr, openSqliteRegistry(dir_.file("no/such/dir/registry.db"), &error));
  EXPECT_FALSE(error.empty());
}

// The writer runs in a child process that is killed with SIGKILL somewhere in
// the middle of its writes. Round r writes every value with content derived
// from (value, r), alternating type and length, so a torn write, a type from
// one round with data from another, or a lost commit all show.
constexpr int kValueCount = 40;

DWORD roundType(uint32_t round) { return round % 2 ? REG_BINARY : REG_SZ; }

std::vector<BYTE> roundData(int value, uint32_t round) {
  std::vector<BYTE> data(64 + (round * 37 + value * 11) % 2000);
  for (int i = 0; i < 4; ++i) data[i] = static_cast<BYTE>(round >> (8 * i));
  for (size_t i = 4; i < data.size(); ++i) data[i] = static_cast<BYTE>(value * 131 + round * 7 + i);
  return data;
}

std::wstring valueName(int value) { return L"value" + std::to_wstring(value); }

// Child: write rounds from `first` on for ever, reporting each finished round.
[[noreturn]] void writeRounds(const std::string& path, uint32_t first, int reportFd) {
  auto reg = openSqliteRegistry(path, nullptr);
  if (!reg) _exit(2);
  HKEY k = openPath(*reg, HKEY_CURRENT_USER, "crash", true);
  if (k == nullptr) _exit(3);
  for (uint32_t round = first;; ++round) {
    for (int v = 0; v < kValueCount; ++v) {
      std::vector<BYTE> data = roundData(v, round);
      if (put(*reg, k, valueName(v), roundType(round), data) != ERROR_SUCCESS) _exit(4);
    }
    if (write(reportFd, &round, sizeof(round)) != sizeof(round)) _exit(5);
  }
}

// The round each value holds; fails the test when a value is not exactly the
// content of some round.
uint32_t checkedRound(RegistryBackend& reg, HKEY k, int value) {
  RawValue v = get(reg, k, valueName(value));
  EXPECT_EQ(ERROR_SUCCESS, v.result) << "value " << value;
  if (v.data.size() < 4) {
    ADD_FAILURE() << "value " << value << " has " << v.data.size() << " bytes";
    return 0;
  }
  uint32_t round = v.data[0] | (v.data[1] << 8) | (v.data[2] << 16) | (static_cast<uint32_t>(v.data[3]) << 24);
  EXPECT_EQ(roundType(round), v.type) << "value " << value << " round " << round;
  EXPECT_TRUE(roundData(value, round) == v.data) << "value " << value << " is torn (round " << round << ")";
  return round;
}

TEST_F(SqliteRegistryTest, AKilledWriterLeavesEveryValueOldOrNewAndWhole) {
  {
    auto reg = open();
    HKEY k = openPath(*reg, HKEY_CURRENT_USER, "crash", true);
    for (int v = 0; v < kValueCount; ++v) put(*reg, k, valueName(v), roundType(0), roundData(v, 0));
    reg->closeKey(k);
  }
  std::mt19937 rng(std::random_device{}());
  uint32_t committed = 0;  // every value holds at least this round
  for (int attempt = 0; attempt < 4; ++attempt) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(fds[0]);
      writeRounds(path(), committed + 1, fds[1]);
    }
    close(fds[1]);
    // Let it finish a few rounds, then kill it at a random moment of the next.
    uint32_t reported = committed;
    for (int rounds = 0; rounds < 3; ++rounds) {
      ASSERT_EQ(static_cast<ssize_t>(sizeof(reported)), read(fds[0], &reported, sizeof(reported)))
          << "the writer died early";
    }
    usleep(rng() % 3000);
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    close(fds[0]);
    ASSERT_TRUE(WIFSIGNALED(status)) << "writer exited with " << WEXITSTATUS(status);

    auto reg = open();
    HKEY k = openPath(*reg, HKEY_CURRENT_USER, "crash", false);
    ASSERT_NE(nullptr, k);
    // Values are written in order: a prefix holds the round being written
    // when the kill came, the rest the round before.
    uint32_t first = checkedRound(*reg, k, 0);
    EXPECT_GE(first, reported);
    for (int v = 1; v < kValueCount; ++v) {
      uint32_t round = checkedRound(*reg, k, v);
      EXPECT_TRUE(round == first || round + 1 == first) << "value " << v << " round " << round << " after " << first;
      first = std::min(first, round);
    }
    committed = first + 1;
    reg->closeKey(k);
  }
}

TEST(RegistrySystem, FollowsTheInstallDirectory) {
  TempDir dir;
  FakeEnv env;
  ScopedEnv scoped(&env);
  env.setInstallDirectory(dir.path());
  ASSERT_TRUE(RegistryBackend::openSystem());
  std::shared_ptr<RegistryBackend> held = RegistryBackend::current();
  HKEY k = openPath(*held, HKEY_CURRENT_USER, "kept", true);
  put(*held, k, L"v", REG_DWORD, dwordBytes(9));
  EXPECT_EQ(0, access(dir.file("registry.db").c_str(), F_OK));
  RegistryBackend::closeSystem();
  // Closed: back in memory, where nothing is stored; a store that holds the
  // old backend can still use it.
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, getAt(*RegistryBackend::system(), HKEY_CURRENT_USER, "kept", L"v").result);
  EXPECT_EQ(ERROR_SUCCESS, put(*held, k, L"w", REG_DWORD, dwordBytes(1)));
  EXPECT_EQ(ERROR_SUCCESS, held->closeKey(k));
  // Opened again, the file still has it.
  ASSERT_TRUE(RegistryBackend::openSystem());
  EXPECT_EQ(dwordBytes(9), getAt(*RegistryBackend::system(), HKEY_CURRENT_USER, "kept", L"v").data);

  // No install directory: in memory.
  env.setInstallDirectory(L"");
  EXPECT_TRUE(RegistryBackend::openSystem());
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, getAt(*RegistryBackend::system(), HKEY_CURRENT_USER, "kept", L"v").result);

  // A directory that cannot hold the file: in memory, with the reason.
  env.setInstallDirectory(dir.path() + L"missing/");
  std::string error;
  EXPECT_FALSE(RegistryBackend::openSystem(&error));
  EXPECT_NE(std::string::npos, error.find("registry.db")) << error;
  k = openPath(*RegistryBackend::system(), HKEY_CURRENT_USER, "works", true);
  EXPECT_NE(nullptr, k);
  RegistryBackend::system()->closeKey(k);
  RegistryBackend::closeSystem();
  env.setInstallDirectory(L"");
}

}  // namespace
}  // namespace test
}  // namespace glidewell
