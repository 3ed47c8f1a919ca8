#include "pcsc/features.h"

#include <algorithm>

#include "contract/bytes.h"

namespace zelta::pcsc {

namespace {

Bytes entry(std::uint8_t tag, const Bytes& value) {
  Bytes bytes;
  bytes.reserve(2 + value.size());
  bytes.push_back(tag);
  bytes.push_back(static_cast<std::uint8_t>(value.size()));
  bytes.insert(bytes.end(), value.begin(), value.end());
  return bytes;
}

Bytes bigEndian(std::uint32_t value) {
  Bytes bytes = numberBytes(value);
  std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

}  // namespace

ControlReply answerControl(DWORD code) {
  switch (code) {
    case CM_IOCTL_GET_FEATURE_REQUEST:
      return {IFD_SUCCESS, entry(FEATURE_GET_TLV_PROPERTIES,
                                 bigEndian(static_cast<std::uint32_t>(kGetPropertiesControl)))};
    case kGetPropertiesControl:
      return {IFD_SUCCESS,
              entry(PCSCv2_PART10_PROPERTY_dwMaxAPDUDataSize, numberBytes(kMaxApduDataSize))};
    default:
      return {};
  }
}

}  // namespace zelta::pcsc
