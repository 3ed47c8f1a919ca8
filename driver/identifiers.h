// The numbers by which the module and its devices are found.
#pragma once

#include "framework/com.h"

namespace zelta {

// The driver object's class, by which the host asks for it.
inline constexpr framework::CLSID kDriverClassId = {
    0xA44A2DF4, 0xDCA4, 0x4767, {0x8E, 0xC4, 0x86, 0xFE, 0x61, 0x1C, 0x2E, 0xA7}};

// The device interface class of smart card readers.
inline constexpr framework::GUID kSmartCardReaderInterface = {
    0x50DD5230, 0xBA8A, 0x11D1, {0xBF, 0x5D, 0x00, 0x00, 0xF8, 0x05, 0xF5, 0x30}};

}  // namespace zelta
