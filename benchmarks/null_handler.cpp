// A handler for pcscd that answers everything at once, to measure the cost of pcscd itself.
#include <algorithm>
#include <array>
#include <cstring>

#include "pcsc/ifd_api.h"

namespace {

constexpr std::array<UCHAR, 10> kAtr{0x3B, 0x95, 0x13, 0x81, 0x01, 0, 0, 0, 0, 0};
constexpr DWORD kAttributeAtr = 0x00090303;
constexpr UCHAR kReadBinary = 0xB0;  // its answer has as many bytes as it asks for
constexpr DWORD kExtendedSize = 7;   // bytes of a command with an extended length

RESPONSECODE give(const void* bytes, DWORD size, PDWORD length, PUCHAR value) {
  std::memcpy(value, bytes, size);
  *length = size;
  return IFD_SUCCESS;
}

}  // namespace

extern "C" {

RESPONSECODE IFDHCreateChannelByName(DWORD, LPSTR) { return IFD_SUCCESS; }
RESPONSECODE IFDHCreateChannel(DWORD, DWORD) { return IFD_SUCCESS; }
RESPONSECODE IFDHCloseChannel(DWORD) { return IFD_SUCCESS; }

RESPONSECODE IFDHGetCapabilities(DWORD, DWORD tag, PDWORD length, PUCHAR value) {
  constexpr UCHAR kOne = 1;
  switch (tag) {
    case TAG_IFD_ATR:
    case kAttributeAtr:
      return give(kAtr.data(), kAtr.size(), length, value);
    case TAG_IFD_SLOTS_NUMBER:
    case TAG_IFD_THREAD_SAFE:
      return give(&kOne, sizeof kOne, length, value);
    default:
      return IFD_ERROR_TAG;
  }
}

RESPONSECODE IFDHSetCapabilities(DWORD, DWORD, DWORD, PUCHAR) { return IFD_NOT_SUPPORTED; }
RESPONSECODE IFDHSetProtocolParameters(DWORD, DWORD, UCHAR, UCHAR, UCHAR, UCHAR) {
  return IFD_SUCCESS;
}
RESPONSECODE IFDHPowerICC(DWORD, DWORD, PUCHAR atr, PDWORD length) {
  return give(kAtr.data(), kAtr.size(), length, atr);
}

RESPONSECODE IFDHTransmitToICC(DWORD, SCARD_IO_HEADER, PUCHAR command, DWORD size, PUCHAR answer,
                               PDWORD length, PSCARD_IO_HEADER) {
  DWORD data = 0;
  if (size == kExtendedSize && command[1] == kReadBinary) data = command[5] << 8 | command[6];
  if (data + 2 > *length) return IFD_COMMUNICATION_ERROR;
  std::fill_n(answer, data, UCHAR{0x55});
  answer[data] = 0x90;
  answer[data + 1] = 0x00;
  *length = data + 2;
  return IFD_SUCCESS;
}

RESPONSECODE IFDHICCPresence(DWORD) { return IFD_SUCCESS; }
RESPONSECODE IFDHControl(DWORD, DWORD, PUCHAR, DWORD, PUCHAR, DWORD, LPDWORD length) {
  *length = 0;
  return IFD_ERROR_NOT_SUPPORTED;
}

}  // extern "C"
