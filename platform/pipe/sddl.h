// Access control lists in the security descriptor definition language, as far as they can be
// honoured for a local pipe on other systems than Windows. Pure text processing; no system calls.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelta::platform {

enum class Trustee {
  kSystem,          // SY, S-1-5-18
  kLocalService,    // LS, S-1-5-19
  kGuests,          // BG, S-1-5-32-546
  kAnonymous,       // AN, S-1-5-7
  kEveryone,        // WD, S-1-1-0
  kAdministrators,  // BA, S-1-5-32-544
  kOwner,           // OW, CO, S-1-3-4, S-1-3-0: the pipe's creator
};

// One entry that applies to the object itself. Generic all is reading and writing.
struct AccessEntry {
  bool allow = false;
  Trustee trustee = Trustee::kSystem;
  bool read = false;
  bool write = false;
};

struct SddlResult {
  std::uint32_t error = 0;
  std::vector<AccessEntry> entries;  // in their order; empty after an error
};

// The entries of the discretionary list. `O:`, `G:` and the list's flags are checked and otherwise
// ignored; an entry that is only inherited (`IO`) is left out. The error is 0 or
//     ERROR_INVALID_PARAMETER (87)  not a descriptor with a discretionary list, or a malformed one
//     ERROR_NOT_SUPPORTED (50)      an audit list, or an entry of another type than `A` and `D`
//     ERROR_NONE_MAPPED (1332)      a trustee that has no counterpart here
// Nothing is guessed: a descriptor that cannot be honoured whole is refused whole.
SddlResult parseSddl(const std::string& sddl);

}  // namespace zelta::platform
