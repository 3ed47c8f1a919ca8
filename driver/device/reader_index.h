// Finds the reader that a caller opened. Every reader's device interface has the reference string
// "dev" followed by the reader's decimal index, and the name of the opened file contains it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zelta {

// The reference string of a reader's interface.
std::wstring readerReferenceString(std::uint32_t index);

// The number after the first "dev" of a file name, in any case: leading white space, a sign and at
// least one digit; whatever follows is ignored. A negative number wraps to a large unsigned one.
// Throws std::invalid_argument "Device name prefix not found" and "invalid stoi argument" (no
// digit), and std::out_of_range "stoi argument out of range" (32 bits, signed).
std::uint32_t parseReaderIndex(std::wstring_view fileName);

}  // namespace zelta
