#include "platform/process/never_destroyed.h"
#include "platform/process/winsock.h"

namespace zelta::platform {

namespace {

class NoWinsock final : public WinsockApi {
 public:
  std::int32_t startup(std::uint16_t /*version*/) override { return 0; }
  std::int32_t cleanup() override { return 0; }
};

}  // namespace

WinsockApi& systemWinsock() {
  static NeverDestroyed<NoWinsock> winsock;
  return winsock.get();
}

}  // namespace zelta::platform
