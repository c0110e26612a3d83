// Win32 events, locks and threads: thin owners of the system objects, so the
// engine's waits behave exactly as the system's own (auto-reset events release
// one waiter, WaitForMultipleObjects reports the lowest signalled index).
#include <system_error>

#include "platform/sync.h"
#include "platform/win32/scoped_handle.h"
#include "platform/win32/win32_sync.h"

namespace glidewell {

namespace {

[[noreturn]] void throwLastError(const char* what) {
  throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

WaitResult toWaitResult(DWORD r) {
  if (r == WAIT_OBJECT_0) return WaitResult::kSignaled;
  if (r == WAIT_TIMEOUT) return WaitResult::kTimeout;
  return WaitResult::kFailed;
}

// NtQueryEvent reads an event's state without waiting on it, which is the only
// way to test an auto-reset event without consuming its signal. It is exported
// by every ntdll since NT 3.1 but declared in no SDK header, hence the lookup.
struct EventBasicInformation {
  int eventType;
  LONG eventState;
};
using NtQueryEventFn = LONG(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);

NtQueryEventFn ntQueryEvent() {
  static const NtQueryEventFn fn = [] {
    HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    FARPROC proc = ntdll != nullptr ? ::GetProcAddress(ntdll, "NtQueryEvent") : nullptr;
    // Through void(*)() so the compiler accepts the change of signature.
    return reinterpret_cast<NtQueryEventFn>(reinterpret_cast<void (*)()>(proc));
  }();
  return fn;
}

}  // namespace

struct Event::Impl {
  ScopedHandle handle;
  bool manualReset;
};

Event::Event(bool manualReset, bool initiallySignaled) : impl_(new Impl) {
  impl_->manualReset = manualReset;
  impl_->handle = ScopedHandle(::CreateEventW(nullptr, manualReset, initiallySignaled, nullptr));
  if (!impl_->handle.isValid()) throwLastError("CreateEventW");
}

Event::~Event() = default;

void Event::set() { ::SetEvent(impl_->handle.get()); }

void Event::reset() { ::ResetEvent(impl_->handle.get()); }

WaitResult Event::wait(uint32_t timeoutMs) {
  return toWaitResult(::WaitForSingleObject(impl_->handle.get(), timeoutMs));
}

bool Event::isSet() const {
  HANDLE h = impl_->handle.get();
  // A zero wait leaves a manual-reset event as it is.
  if (impl_->manualReset) return ::WaitForSingleObject(h, 0) == WAIT_OBJECT_0;
  if (NtQueryEventFn query = ntQueryEvent()) {
    EventBasicInformation info{};
    if (query(h, 0 /* EventBasicInformation */, &info, sizeof(info), nullptr) >= 0) return info.eventState != 0;
  }
  // Without NtQueryEvent: take the signal and give it back at once.
  if (::WaitForSingleObject(h, 0) != WAIT_OBJECT_0) return false;
  ::SetEvent(h);
  return true;
}

uintptr_t Event::handleValue() const { return reinterpret_cast<uintptr_t>(impl_->handle.get()); }

int Event::waitAny(Event* const* events, int count, uint32_t timeoutMs) {
  if (count <= 0 || count > MAXIMUM_WAIT_OBJECTS) return -1;
  HANDLE handles[MAXIMUM_WAIT_OBJECTS];
  for (int i = 0; i < count; ++i) handles[i] = events[i]->impl_->handle.get();
  DWORD r = ::WaitForMultipleObjects(static_cast<DWORD>(count), handles, FALSE, timeoutMs);
  if (r < WAIT_OBJECT_0 + static_cast<DWORD>(count)) return static_cast<int>(r - WAIT_OBJECT_0);
  return -1;  // time-out, or the wait failed
}

HANDLE nativeHandle(const Event& event) { return event.impl()->handle.get(); }

struct RecursiveLock::Impl {
  CRITICAL_SECTION section;
};

RecursiveLock::RecursiveLock() : impl_(new Impl) { ::InitializeCriticalSection(&impl_->section); }
RecursiveLock::~RecursiveLock() { ::DeleteCriticalSection(&impl_->section); }
void RecursiveLock::lock() { ::EnterCriticalSection(&impl_->section); }
void RecursiveLock::unlock() { ::LeaveCriticalSection(&impl_->section); }

uint32_t currentThreadId() { return ::GetCurrentThreadId(); }

struct Thread::Impl {
  std::function<void()> body;
  ScopedHandle handle;
  DWORD id = 0;
};

namespace {
// The Impl outlives the thread: ~Thread joins before it frees it.
DWORD WINAPI threadMain(void* arg) {
  static_cast<Thread::Impl*>(arg)->body();
  return 0;
}
}  // namespace

Thread::Thread(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

std::unique_ptr<Thread> Thread::start(std::function<void()> body) {
  auto impl = std::make_unique<Impl>();
  impl->body = std::move(body);
  DWORD id = 0;
  HANDLE h = ::CreateThread(nullptr, 0, threadMain, impl.get(), 0, &id);
  if (h == nullptr) throwLastError("CreateThread");
  impl->handle = ScopedHandle(h);
  impl->id = id;
  return std::unique_ptr<Thread>(new Thread(std::move(impl)));
}

Thread::~Thread() { join(); }

void Thread::join() {
  // A thread that waited for itself would wait for ever.
  if (!impl_->handle.isValid() || impl_->id == ::GetCurrentThreadId()) return;
  ::WaitForSingleObject(impl_->handle.get(), INFINITE);
}

bool Thread::isAlive() const { return ::WaitForSingleObject(impl_->handle.get(), 0) == WAIT_TIMEOUT; }

uint32_t Thread::id() const { return impl_->id; }

}  // namespace glidewell
