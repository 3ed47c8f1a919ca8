// Lines of the driver's log.
#pragma once

namespace zelta::test {

inline constexpr char kHeader[] =
    "Thread   Time                     Elapsed  Session Log Id                       Cat   Level  "
    "    RC          Message";
inline constexpr char kInfo[] =
    "[1234  ] 2024-03-05T14:07:09.042Z 12       00000000-0000-0000-0000-000000000000 0     <INFO> "
    "    0           [TRSM]IOCTL_SMARTCARD_TRANSMIT";
inline constexpr char kError[] =
    "[123456789] 2024-03-05T14:07:10.000Z 970      a1b2c3d4-0000-0000-0000-000000000000 0     "
    "<ERROR>    -1073741448 [GATT]SCARD_ATTR_ATR_STRING: STATUS_NO_MEDIA";
inline constexpr char kDebug[] =
    "[1234  ] 2024-03-05T14:08:00.500Z 51470    00000000-0000-0000-0000-000000000000 0     "
    "<DEBUG>    0           Start section:CMyDevice::OnD0Entry";

}  // namespace zelta::test
