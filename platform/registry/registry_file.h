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
// Later lines override earlier ones. Keys of other roots (HKEY_...) are skipped with their values.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

#include "platform/registry/registry_content.h"

namespace zelta::platform {

// A line that was not understood and its number, from 1; of a continued value the first line's.
using OnSkippedLine = std::function<void(std::size_t number, std::u16string_view line)>;

// Takes any bytes: UTF-16 with a byte order mark, else UTF-8 with or without one. A line that is
// not understood (also: one with a zero character) is skipped and the rest stands; so are the
// values of a key that is not understood, without being mentioned.
// Time and memory are in proportion to the size. Throws std::bad_alloc, and what `onSkipped`
// throws. Any thread.
RegistryContent parseRegistryFile(std::string_view bytes, const OnSkippedLine& onSkipped);

}  // namespace zelta::platform
