// Names: of the reader in pcscd's configuration, of the reader in the driver, of the module's file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zelta::pcsc {

// The reader's index in a DEVICENAME: the decimal number after the last colon, 0 if there is no
// colon. None if what follows the colon is not a 32-bit number.
//   zelta:0 -> 0   zelta:12 -> 12   zelta -> 0   zelta: -> none   zelta:x -> none   zelta:-1 ->
//   none
std::optional<std::uint32_t> readerIndexOf(const std::string& deviceName);

// The reader's interface in the driver: "dev" and the index.
std::wstring interfaceName(std::uint32_t readerIndex);
// The same, for the log.
std::string readerName(std::uint32_t readerIndex);

// The driver module: $ZELTA_MODULE, or libzelta_vsc.so in this library's own folder.
std::string modulePath();

}  // namespace zelta::pcsc
