// The registry's export format ("Windows Registry Editor Version 5.00") as text.
//
//   Windows Registry Editor Version 5.00
//
//   ; a comment; one may also follow a line's data
//   [HKEY_LOCAL_MACHINE\SOFTWARE\Vornhalt\ZeltaAgent]      HKLM\... does as well
//   @="the key's default value"
//   "text"="with \\ and \" escaped"
//   "number"=dword:0000003c                                 one to eight hexadecimal digits
//   "bytes"=hex:01,02,\                                     goes on in the next line
//     03
//   "of any type"=hex(2):25,00,00,00                        the type's number in hexadecimal
//   "deleted"=-
//   [-HKEY_LOCAL_MACHINE\SOFTWARE\Gone]                     with everything below it
//
// Later lines override earlier ones. Keys of other roots are skipped with their values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/registry_content.h"

namespace zelta::platform {

// A line that was not understood.
struct SkippedLine {
  std::size_t number = 0;      // from 1; of a continued value the first line's
  std::uint64_t identity = 0;  // of its text, the same wherever in the file it stands
};

struct ParsedRegistry {
  // At most this many of the skipped lines are listed; all are counted.
  static constexpr std::size_t kListedLines = 256;

  RegistryContent content;
  std::vector<SkippedLine> skipped;
  std::size_t skippedCount = 0;
};

// Takes any bytes: UTF-16 with a byte order mark, else UTF-8 with or without one; lines end with
// LF, CR LF or CR. What is not understood (also: a key more than 512 names deep or with a name of
// more than 255 units, a line with a zero character, a value that is not finished) is skipped.
// Time and memory are in proportion to the size. Throws std::bad_alloc alone. Pure; any thread.
ParsedRegistry parseRegistryFile(std::string_view bytes);

}  // namespace zelta::platform
