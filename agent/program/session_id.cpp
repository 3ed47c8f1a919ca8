// Checked by hand although libsystemd reads ids: Windows has no libsystemd.
#include "agent/program/session_id.h"

#include <cstddef>

#include "contract/bytes.h"

namespace zelta::agent {

bool isSessionId(const std::string& text) {
  const std::string form = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  if (text.size() != form.size()) return false;
  for (std::size_t i = 0; i < form.size(); ++i) {
    if (form[i] == '-' ? text[i] != '-' : hexDigit(text[i]) < 0) return false;
  }
  return true;
}

}  // namespace zelta::agent
