// SCardControl: the PC/SC features that the handler answers itself.
//
// Pure functions.
#pragma once

#include "contract/bytes.h"
#include "pcsc/ifd_api.h"

namespace zelta::pcsc {

// The control code that returns the reader's properties; chosen by the handler.
inline constexpr DWORD kGetPropertiesControl = SCARD_CTL_CODE(0x800 + FEATURE_GET_TLV_PROPERTIES);

// The most data of a command or an answer: extended length is supported.
inline constexpr std::uint32_t kMaxApduDataSize = 0x10000;

struct ControlReply {
  RESPONSECODE code = IFD_ERROR_NOT_SUPPORTED;
  Bytes bytes;
};

// | code                         | answer                                                  |
// |------------------------------|---------------------------------------------------------|
// | CM_IOCTL_GET_FEATURE_REQUEST | tag, 4, kGetPropertiesControl in big-endian order       |
// | kGetPropertiesControl        | dwMaxAPDUDataSize, 4, the size in little-endian order   |
// | any other                    | IFD_ERROR_NOT_SUPPORTED                                 |
ControlReply answerControl(DWORD code);

}  // namespace zelta::pcsc
