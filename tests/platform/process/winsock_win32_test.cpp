#include <winsock2.h>
// winsock2.h comes before windows.h
#include <gtest/gtest.h>
#include <windows.h>

#include "platform/process/winsock.h"

namespace zelta::platform {
namespace {

// INVALID_SOCKET unless the process may open sockets. The caller closes the socket.
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
