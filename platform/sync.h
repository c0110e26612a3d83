// Events, a recursive lock and threads: the synchronisation the engine needs,
// with the semantics of their Win32 counterparts (CreateEvent, critical
// sections, CreateThread). platform/win32 implements them over the system
// objects; platform/posix over pthread mutexes and condition variables.
#ifndef GLIDEWELL_PLATFORM_SYNC_H_
#define GLIDEWELL_PLATFORM_SYNC_H_

#include <cstdint>
#include <functional>
#include <memory>

namespace glidewell {

constexpr uint32_t kWaitInfinite = 0xFFFFFFFFu;

enum class WaitResult { kSignaled, kTimeout, kFailed };

// A Win32-style event. Manual-reset events stay signalled until reset;
// auto-reset events release one waiter (or one successful wait) and reset
// themselves. Thread safe. Neither copied nor moved: waiters and waitAny hold
// it by address. The underlying object is closed when the Event is destroyed.
class Event {
 public:
  Event(bool manualReset, bool initiallySignaled);
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void set();
  void reset();
  // Waits up to timeoutMs (kWaitInfinite: for ever). A timeout of 0 only tests.
  // For an auto-reset event a kSignaled result consumes the signal.
  WaitResult wait(uint32_t timeoutMs);
  // Non-destructive test (never consumes an auto-reset signal).
  bool isSet() const;
  // A number that identifies the object in log lines ("Handle").
  uintptr_t handleValue() const;

  // Waits until one of the events is signalled; returns its index, -1 on
  // time-out. Consumes the signal of an auto-reset event it returns.
  static int waitAny(Event* const* events, int count, uint32_t timeoutMs);

  struct Impl;
  Impl* impl() const { return impl_.get(); }

 private:
  std::unique_ptr<Impl> impl_;
};

// A re-entrant lock (a critical section): the owning thread may take it again.
class RecursiveLock {
 public:
  RecursiveLock();
  ~RecursiveLock();
  RecursiveLock(const RecursiveLock&) = delete;
  RecursiveLock& operator=(const RecursiveLock&) = delete;

  void lock();
  void unlock();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

class ScopedLock {
 public:
  explicit ScopedLock(RecursiveLock& lock) : lock_(lock) { lock_.lock(); }
  ~ScopedLock() { lock_.unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  RecursiveLock& lock_;
};

// An operating-system thread running one function. join() waits for it;
// destroying a Thread that was not joined joins it first.
class Thread {
 public:
  static std::unique_ptr<Thread> start(std::function<void()> body);
  ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  void join();
  // True while the thread function has not returned.
  bool isAlive() const;
  uint32_t id() const;

  struct Impl;

 private:
  explicit Thread(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

// The operating system's numeric id of the calling thread.
uint32_t currentThreadId();

}  // namespace glidewell

#endif  // GLIDEWELL_PLATFORM_SYNC_H_
