// The small ports where this system has its own.
#include <winsock2.h>
// winsock2.h comes before windows.h
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "platform/files/file.h"
#include "platform/process/winsock.h"
#include "tests/platform/system_milliseconds.h"

std::uint64_t zelta::test::systemMilliseconds() { return GetTickCount64(); }

namespace zelta::platform {
namespace {

TEST(NativePath, IsTheTextInUtf16) {
  EXPECT_EQ(nativePath("C:\\ProgramData\\Vornhalt\\logs\\zelta_vsc.txt").native(),
            L"C:\\ProgramData\\Vornhalt\\logs\\zelta_vsc.txt");
  EXPECT_EQ(nativePath("X:\\T\\\\zelta_vsc").native(), L"X:\\T\\\\zelta_vsc");
  EXPECT_EQ(nativePath("plain").native(), L"plain");
  EXPECT_EQ(nativePath("").native(), L"");
  EXPECT_EQ(nativePath("C:\\sm\xC3\xB8r\\\xF0\x9F\x98\x80").native(), L"C:\\sm\u00F8r\\\U0001F600");
}

// That the process may use sockets; a socket is closed by its caller.
SOCKET newSocket() { return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP); }

TEST(Winsock, SocketsWorkFromStartupToTheLastCleanup) {
  EXPECT_EQ(newSocket(), INVALID_SOCKET) << "nobody has started them yet";
  EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED);
  ASSERT_EQ(systemWinsock().startup(0x0202), 0);
  ASSERT_EQ(systemWinsock().startup(0x0202), 0);
  EXPECT_EQ(systemWinsock().cleanup(), 0);
  const SOCKET made = newSocket();
  EXPECT_NE(made, INVALID_SOCKET);
  closesocket(made);
  EXPECT_EQ(systemWinsock().cleanup(), 0);
  EXPECT_EQ(newSocket(), INVALID_SOCKET);
}

TEST(Winsock, CleanupWithoutStartupFails) {
  EXPECT_EQ(systemWinsock().cleanup(), SOCKET_ERROR);
  EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED);
}

TEST(Winsock, VersionThatIsNoneIsRefused) {
  EXPECT_EQ(systemWinsock().startup(0), WSAVERNOTSUPPORTED);
}

}  // namespace
}  // namespace zelta::platform
