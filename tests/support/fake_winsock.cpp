#include "tests/support/fake_winsock.h"

namespace zelta::test {

std::int32_t FakeWinsock::startup(std::uint16_t version) {
  ++startups_;
  version_ = version;
  return startupResult;
}

std::int32_t FakeWinsock::cleanup() {
  ++cleanups_;
  return cleanupResult;
}

}  // namespace zelta::test
