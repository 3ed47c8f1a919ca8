// Starts and cleans up the system's sockets; does nothing except on Windows.
#pragma once

#include <cstdint>

namespace zelta::platform {

class WinsockApi {
 public:
  virtual ~WinsockApi() = default;
  // `version` has the minor version in the high and the major in the low byte. 0 is success.
  virtual std::int32_t startup(std::uint16_t version) = 0;
  virtual std::int32_t cleanup() = 0;
};

WinsockApi& systemWinsock();

}  // namespace zelta::platform
