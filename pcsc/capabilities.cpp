#include "pcsc/capabilities.h"

#include <cstring>

#include "contract/attributes.h"
#include "contract/bytes.h"

namespace zelta::pcsc {

namespace {

constexpr std::uint8_t kReaders = 16;  // at the same time; pcscd itself has no more

Reply oneByte(std::uint8_t value) { return {IFD_SUCCESS, {value}}; }

template <typename Function>
Reply address(Function function) {
  Bytes bytes(sizeof function);
  std::memcpy(bytes.data(), &function, sizeof function);
  return {IFD_SUCCESS, std::move(bytes)};
}

}  // namespace

Reply capability(Channel& channel, DWORD tag, const PollingFunctions& polling) {
  switch (tag) {
    case TAG_IFD_SIMULTANEOUS_ACCESS:
      return oneByte(kReaders);
    case TAG_IFD_THREAD_SAFE:
    case TAG_IFD_SLOT_THREAD_SAFE:
    case TAG_IFD_SLOTS_NUMBER:
      return oneByte(1);
    case TAG_IFD_POLLING_THREAD_KILLABLE:
      return oneByte(0);
    case TAG_IFD_POLLING_THREAD_WITH_TIMEOUT:
      return address(polling.await);
    case TAG_IFD_STOP_POLLING_THREAD:
      return address(polling.stop);
    case TAG_IFD_ATR:
      return channel.attribute(SCARD_ATTR_ATR_STRING);
    case SCARD_ATTR_DEVICE_FRIENDLY_NAME_A:
    case SCARD_ATTR_DEVICE_FRIENDLY_NAME_W:
    case SCARD_ATTR_DEVICE_SYSTEM_NAME_A:
    case SCARD_ATTR_DEVICE_SYSTEM_NAME_W:
      return {IFD_ERROR_TAG, {}};
    default:
      return channel.attribute(tag);
  }
}

}  // namespace zelta::pcsc
