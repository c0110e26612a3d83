// UserActivity: people at work on simulated drives while the engine runs. A
// thread of its own creates, extends, truncates, renames and deletes files
// through the disks' user operations at about the rate asked for (new files
// in the root directory, renames within a file's directory), so that change
// tracking records something and react mode has files to treat. The
// choices come from the seed; where the disk puts the clusters also depends
// on what the engine moved meanwhile.
#ifndef GLIDEWELL_CLI_ACTIVITY_H_
#define GLIDEWELL_CLI_ACTIVITY_H_

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "sim/sim_disk.h"

namespace glidewell {

struct ActivityCounts {
  uint64_t created = 0;
  uint64_t extended = 0;
  uint64_t truncated = 0;
  uint64_t renamed = 0;
  uint64_t deleted = 0;
  uint64_t refused = 0;  // operations the disk refused (full, locked, gone)

  uint64_t changes() const { return created + extended + truncated + renamed + deleted; }
};

class UserActivity {
 public:
  // changesPerSecond > 0. The disks are shared with the engine.
  UserActivity(std::vector<std::shared_ptr<SimDisk>> disks, double changesPerSecond, uint64_t seed);
  ~UserActivity();
  UserActivity(const UserActivity&) = delete;
  UserActivity& operator=(const UserActivity&) = delete;

  void start();
  // Returns once the thread has made its last change.
  void stop();
  // One change, on the calling thread (what the thread does at each tick).
  void step();
  ActivityCounts counts() const;

 private:
  struct Drive {
    std::shared_ptr<SimDisk> disk;
    std::vector<std::wstring> files;  // files this activity may touch
  };

  void run();
  void create(Drive& d);
  void resize(Drive& d, bool grow);
  void rename(Drive& d);
  void remove(Drive& d);
  uint64_t pick(uint64_t n) { return n == 0 ? 0 : random_() % n; }
  std::wstring newName(const std::wstring& dir, const wchar_t* stem);
  void skipNamesOf(const std::wstring& path);

  const double rate_;
  const uint64_t seed_;
  std::vector<Drive> drives_;
  std::mt19937_64 random_;
  uint64_t made_ = 0;  // names handed out

  mutable std::mutex mutex_;  // guards counts_, stop_ and the drives' lists
  std::condition_variable wake_;
  bool stop_ = false;
  ActivityCounts counts_;
  std::thread thread_;
};

}  // namespace glidewell

#endif  // GLIDEWELL_CLI_ACTIVITY_H_
