// The parts of the Win32 platform layer that only Windows has: the client end
// of a named pipe against a real pipe server, the drive list, the handles
// behind the portable types. Run under Wine.
#include <gtest/gtest.h>

#include "engine/dfrg_exception.h"
#include "engine/system_drives.h"
#include "platform/env.h"
#include "platform/text.h"
#include "platform/win32/scoped_handle.h"
#include "platform/win32/win32_sync.h"
#include "volume/volume_system.h"
#include "volume/win32/win_drive_provider.h"

namespace glidewell {
namespace {

Env& env() { return *Env::current(); }

const wchar_t kPipe[] = L"\\\\.\\pipe\\GlidewellPlatformWin32Test";

// One server instance of kPipe, created ready for a client. Overlapped, so
// that asking it whether a client came never blocks the test.
ScopedHandle makePipeServer(DWORD maxInstances = 1) {
  return ScopedHandle(::CreateNamedPipeW(kPipe, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE,
                                         maxInstances, 512, 512, 0, nullptr));
}

// ConnectNamedPipe after the client has arrived reports ERROR_PIPE_CONNECTED;
// before, it starts listening (pending), which is called off again.
bool serverSeesClient(HANDLE server) {
  OVERLAPPED ov{};
  ScopedHandle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  ov.hEvent = done.get();
  if (::ConnectNamedPipe(server, &ov)) return false;
  DWORD error = ::GetLastError();
  if (error == ERROR_IO_PENDING) {
    ::CancelIo(server);
    DWORD n = 0;
    ::GetOverlappedResult(server, &ov, &n, TRUE);
  }
  return error == ERROR_PIPE_CONNECTED;
}

TEST(Win32Pipe, TheClientHoldsTheServersConnectionUntilReleased) {
  ScopedHandle server = makePipeServer();
  ASSERT_TRUE(server.isValid()) << ::GetLastError();
  EXPECT_FALSE(serverSeesClient(server.get()));
  DWORD error = 0;
  auto client = env().openPipeClient(kPipe, &error);
  ASSERT_NE(nullptr, client) << error;
  EXPECT_TRUE(serverSeesClient(server.get()));
  DWORD avail = 0;
  EXPECT_TRUE(::PeekNamedPipe(server.get(), nullptr, 0, nullptr, &avail, nullptr));
  client.reset();
  EXPECT_FALSE(::PeekNamedPipe(server.get(), nullptr, 0, nullptr, &avail, nullptr));
  EXPECT_EQ(static_cast<DWORD>(ERROR_BROKEN_PIPE), ::GetLastError());
}

TEST(Win32Pipe, ABusyPipeReportsBusyAndTheWaitTimesOut) {
  ScopedHandle server = makePipeServer(2);
  ASSERT_TRUE(server.isValid());
  auto first = env().openPipeClient(kPipe, nullptr);
  ASSERT_NE(nullptr, first);
  DWORD error = 0;
  EXPECT_EQ(nullptr, env().openPipeClient(kPipe, &error));
  EXPECT_EQ(static_cast<DWORD>(ERROR_PIPE_BUSY), error);
  uint32_t start = env().timeGetTime();
  EXPECT_FALSE(env().waitNamedPipe(kPipe, 200));
  EXPECT_GE(env().timeGetTime() - start, 150u);
  // A second instance makes the pipe available again.
  ScopedHandle second = makePipeServer(2);
  ASSERT_TRUE(second.isValid());
  EXPECT_TRUE(env().waitNamedPipe(kPipe, 1000));
  EXPECT_NE(nullptr, env().openPipeClient(kPipe, nullptr));
}

TEST(Win32Drives, DriveCIsAFixedDriveWithALabel) {
  addSystemDriveProviders();
  DWORD drives = env().logicalDrives();
  ASSERT_NE(0u, drives & (1u << 2)) << "Wine always has C:";
  EXPECT_EQ(static_cast<UINT>(DRIVE_FIXED), env().driveType(L"C:\\"));
  std::wstring label = L"unchanged";
  EXPECT_TRUE(env().volumeLabel(L"C:\\", &label));
  EXPECT_NE(L"unchanged", label);
  for (wchar_t letter = L'D'; letter <= L'Y'; ++letter) {
    if ((drives & (1u << (letter - L'A'))) == 0) {
      std::wstring root = std::wstring(1, letter) + L":\\";
      EXPECT_EQ(static_cast<UINT>(DRIVE_NO_ROOT_DIR), env().driveType(root)) << letter;
      EXPECT_FALSE(env().volumeLabel(root, &label)) << letter;
      break;
    }
  }
}

TEST(Win32Drives, AVolumeThatCannotBeUsedThrowsVolumeUnavailable) {
  // Wine refuses the NTFS volume controls, so even C: cannot be used.
  for (wchar_t letter : {L'C', L'Q'}) {
    try {
      WinDriveProvider::instance()->openVolume(letter);
      ADD_FAILURE() << "opened " << static_cast<char>(letter);
    } catch (const CDfrgException& e) {
      EXPECT_EQ(ErrorVolumeUnavailable, e.code) << e.message;
      EXPECT_FALSE(e.message.empty());
    }
  }
}

TEST(Win32Handles, EventsExposeTheirSystemHandle) {
  Event e(false, false);
  HANDLE h = nativeHandle(e);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(h), e.handleValue());
  ::SetEvent(h);
  EXPECT_TRUE(e.isSet());
  EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(h, 0));
  EXPECT_FALSE(e.isSet());
}

TEST(Win32Handles, AScopedHandleHasOneOwnerAndClosesOnce) {
  HANDLE raw = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ScopedHandle a(raw);
  ScopedHandle b(std::move(a));
  EXPECT_FALSE(a.isValid());
  EXPECT_EQ(raw, b.get());
  ScopedHandle c;
  c = std::move(b);
  DWORD flags = 0;
  EXPECT_TRUE(::GetHandleInformation(raw, &flags));
  ::SetLastError(1234);
  c.close();
  EXPECT_EQ(1234u, ::GetLastError()) << "closing keeps the caller's last error";
  EXPECT_FALSE(::GetHandleInformation(raw, &flags));
  EXPECT_FALSE(ScopedHandle(INVALID_HANDLE_VALUE).isValid());
}

TEST(Win32Files, OpenedFilesLeaveNoStaleLastError) {
  std::wstring path = widen(testing::TempDir()) + L"gw_win32_lasterror.txt";
  for (int i = 0; i < 2; ++i) {  // the second open finds the file: 183 on Windows
    auto f = env().openFile(path, FileOpen::kAppendOrCreate, nullptr);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(0u, ::GetLastError());
  }
  EXPECT_TRUE(env().deleteFile(path));
}

}  // namespace
}  // namespace glidewell
