#include <winsock2.h>

#include "platform/process/never_destroyed.h"
#include "platform/process/winsock.h"

namespace zelta::platform {

namespace {

class Win32Winsock final : public WinsockApi {
 public:
  std::int32_t startup(std::uint16_t version) override {
    WSADATA data;
    return WSAStartup(version, &data);
  }

  std::int32_t cleanup() override { return WSACleanup(); }
};

}  // namespace

WinsockApi& systemWinsock() {
  static NeverDestroyed<Win32Winsock> winsock;
  return winsock.get();
}

}  // namespace zelta::platform
