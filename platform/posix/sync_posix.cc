// POSIX events, locks and threads.
//
// All events share one mutex and one condition variable. The engine has a
// handful of events and they change rarely, so the shared condition costs
// nothing measurable, and it makes waiting on several events at once
// (Event::waitAny) as simple as waiting on one.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/sync.h"

namespace glidewell {

namespace {
std::mutex& eventMutex() {
  static std::mutex m;
  return m;
}
std::condition_variable& eventCond() {
  static std::condition_variable c;
  return c;
}
std::atomic<uintptr_t> nextHandle{0x100};
}  // namespace

struct Event::Impl {
  bool manualReset;
  bool signaled;
  uintptr_t handle;
};

Event::Event(bool manualReset, bool initiallySignaled)
    : impl_(new Impl{manualReset, initiallySignaled, nextHandle.fetch_add(4)}) {}

Event::~Event() = default;

void Event::set() {
  {
    std::lock_guard<std::mutex> g(eventMutex());
    impl_->signaled = true;
  }
  eventCond().notify_all();
}

void Event::reset() {
  std::lock_guard<std::mutex> g(eventMutex());
  impl_->signaled = false;
}

bool Event::isSet() const {
  std::lock_guard<std::mutex> g(eventMutex());
  return impl_->signaled;
}

uintptr_t Event::handleValue() const { return impl_->handle; }

WaitResult Event::wait(uint32_t timeoutMs) {
  Event* self = this;
  return waitAny(&self, 1, timeoutMs) == 0 ? WaitResult::kSignaled : WaitResult::kTimeout;
}

int Event::waitAny(Event* const* events, int count, uint32_t timeoutMs) {
  std::unique_lock<std::mutex> g(eventMutex());
  auto ready = [&]() -> int {
    for (int i = 0; i < count; ++i) {
      if (events[i]->impl_->signaled) return i;
    }
    return -1;
  };
  int index = ready();
  if (index < 0 && timeoutMs != 0) {
    if (timeoutMs == kWaitInfinite) {
      eventCond().wait(g, [&] { return (index = ready()) >= 0; });
    } else {
      eventCond().wait_for(g, std::chrono::milliseconds(timeoutMs),
                           [&] { return (index = ready()) >= 0; });
    }
  }
  if (index >= 0 && !events[index]->impl_->manualReset) events[index]->impl_->signaled = false;
  return index;
}

struct RecursiveLock::Impl {
  std::recursive_mutex mutex;
};

RecursiveLock::RecursiveLock() : impl_(new Impl) {}
RecursiveLock::~RecursiveLock() = default;
void RecursiveLock::lock() { impl_->mutex.lock(); }
void RecursiveLock::unlock() { impl_->mutex.unlock(); }

uint32_t currentThreadId() { return static_cast<uint32_t>(::syscall(SYS_gettid)); }

struct Thread::Impl {
  std::thread thread;
  std::atomic<bool> alive{true};
  std::atomic<uint32_t> id{0};
};

Thread::Thread(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::unique_ptr<Thread> Thread::start(std::function<void()> body) {
  auto impl = std::make_unique<Impl>();
  Impl* raw = impl.get();
  Event started(true, false);
  raw->thread = std::thread([raw, &started, body = std::move(body)]() {
    raw->id.store(currentThreadId());
    started.set();
    body();
    raw->alive.store(false);
  });
  started.wait(kWaitInfinite);
  return std::unique_ptr<Thread>(new Thread(std::move(impl)));
}

Thread::~Thread() { join(); }

void Thread::join() {
  if (impl_->thread.joinable()) impl_->thread.join();
}

bool Thread::isAlive() const { return impl_->alive.load(); }

uint32_t Thread::id() const { return impl_->id.load(); }

}  // namespace glidewell
