#include <systemd/sd-id128.h>

#include <array>
#include <system_error>

#include "agent/program/session_id.h"

namespace zelta::agent {

std::string newSessionId() {
  sd_id128_t id;
  if (const int result = sd_id128_randomize(&id); result < 0) {
    throw std::system_error(-result, std::generic_category(), "sd_id128_randomize");
  }
  std::array<char, SD_ID128_UUID_STRING_MAX> text;
  return sd_id128_to_uuid_string(id, text.data());
}

}  // namespace zelta::agent
