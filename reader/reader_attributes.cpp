// The reader's attributes.
#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "diagnostics/log.h"
#include "driver/request/memory_util.h"
#include "platform/process/error.h"
#include "reader/reader.h"

namespace zelta {

namespace {

constexpr char kGetHandler[] = "Reader::IoSmartCardGetAttribute";
constexpr char kSetHandler[] = "Reader::IoSmartCardSetAttribute";

constexpr std::uint32_t kChannelId = 0x00F00000;  // channel type 0x00F0, channel 0
// Deliberate: both, whatever the card offers.
constexpr std::uint32_t kProtocolTypes = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;
constexpr std::uint32_t kDefaultClock = 4000;  // kHz
constexpr std::uint32_t kMaxIfsd = 254;        // bytes
constexpr std::uint32_t kNoCharacteristics = 0;

constexpr auto kNoMediaCode = static_cast<std::uint32_t>(status::kNoMedia);

constexpr bool isVendorDefined(std::uint32_t tag) {
  return (tag >= kFirstVendorDefinedAttribute && tag <= kLastVendorDefinedAttribute) ||
         tag == SERVER_RESULT;
}

}  // namespace

void Reader::IoSmartCardGetAttribute(IoRequest* request, std::size_t /*inLength*/,
                                     std::size_t /*outLength*/) {
  if (request == nullptr) {
    logError(kNoError, "[GATT]: invalid request");
    return;
  }
  if (!hasIntegerInput(*request, "[GATT]IOCTL_SMARTCARD_GET_ATTRIBUTE", kGetHandler)) return;
  const auto tag = static_cast<std::uint32_t>(MemoryUtil::getInt(*request));
  logInfo("[GATT] - code %0X", tag);
  if (isVendorDefined(tag)) {
    IoSmartCardGetVendorDefinedAttribute(tag, *request);
    return;
  }
  if (getReaderAttribute(tag, *request) || getClockAttribute(tag, *request) ||
      getCardAttribute(tag, *request)) {
    return;
  }
  logError(platform::error::kNotSupported, "[GATT]ERROR_NOT_SUPPORTED:%08X", tag);
  finish(*request, status::kNotSupported, kGetHandler, __LINE__);
}

bool Reader::getReaderAttribute(std::uint32_t tag, IoRequest& request) {
  switch (tag) {
    case SCARD_ATTR_VENDOR_NAME:
      answerText(request, "[GATT]SCARD_ATTR_VENDOR_NAME", vendorName_);
      return true;
    case SCARD_ATTR_VENDOR_IFD_TYPE:
      answerText(request, "[GATT]SCARD_ATTR_VENDOR_IFD_TYPE", ifdType_);
      return true;
    case SCARD_ATTR_CHANNEL_ID:
      answerQuantity(request, "[GATT]SCARD_ATTR_CHANNEL_ID", kChannelId, "");
      return true;
    case SCARD_ATTR_PROTOCOL_TYPES:
      answerQuantity(request, "[GATT]SCARD_ATTR_PROTOCOL_TYPES", kProtocolTypes, "");
      return true;
    case SCARD_ATTR_CHARACTERISTICS:
      answerNumber(request, "[GATT]SCARD_ATTR_CHARACTERISTICS", kNoCharacteristics);
      return true;
    case RPC_TYPE:
      answerNumber(request, "[GATT]RPC_TYPE", rpcType_.load(std::memory_order_relaxed));
      return true;
    case SCARD_ATTR_DEVICE_UNIT:
      answerNumber(request, "[GATT]SCARD_ATTR_DEVICE_UNIT", reportedUnitNumber_);
      return true;
    default:
      return false;
  }
}

bool Reader::getClockAttribute(std::uint32_t tag, IoRequest& request) {
  constexpr auto kRelaxed = std::memory_order_relaxed;
  switch (tag) {
    case SCARD_ATTR_DEFAULT_CLK:
      answerQuantity(request, "[GATT]SCARD_ATTR_DEFAULT_CLK", kDefaultClock, "kHz");
      return true;
    case SCARD_ATTR_MAX_CLK:
      answerQuantity(request, "[GATT]SCARD_ATTR_MAX_CLK", maxClock_.load(kRelaxed), "kHz");
      return true;
    case SCARD_ATTR_DEFAULT_DATA_RATE:
      answerQuantity(request, "[GATT]SCARD_ATTR_DEFAULT_DATA_RATE", defaultDataRate_.load(kRelaxed),
                     "bps");
      return true;
    case SCARD_ATTR_MAX_DATA_RATE:
      answerQuantity(request, "[GATT]SCARD_ATTR_MAX_DATA_RATE", maxDataRate_.load(kRelaxed), "bps");
      return true;
    default:
      return false;
  }
}

bool Reader::getCardAttribute(std::uint32_t tag, IoRequest& request) {
  switch (tag) {
    case SCARD_ATTR_MAX_IFSD:
      answerQuantity(request, "[GATT]SCARD_ATTR_MAX_IFSD", kMaxIfsd, "");
      return true;
    case SCARD_ATTR_CURRENT_IFSC:
      answerQuantity(request, "[GATT]SCARD_ATTR_CURRENT_IFSC",
                     ifsc_.load(std::memory_order_relaxed), "");
      return true;
    case SCARD_ATTR_CURRENT_PROTOCOL_TYPE:
      getCurrentProtocol(request);
      return true;
    case SCARD_ATTR_ATR_STRING:
      getAtr(request);
      return true;
    default:
      return false;
  }
}

void Reader::getCurrentProtocol(IoRequest& request) {
  const std::uint32_t current = state();
  if (current <= SCARD_ABSENT) {
    logError(kNoMediaCode, "[GATT]SCARD_ATTR_CURRENT_PROTOCOL_TYPE: STATUS_NO_MEDIA");
    finish(request, status::kNoMedia, kGetHandler, __LINE__);
    return;
  }
  const std::uint32_t protocol = currentProtocol();
  logInfo("[GATT]SCARD_ATTR_CURRENT_PROTOCOL_TYPE: %d [state:%08X]", static_cast<int>(protocol),
          current);
  MemoryUtil::setInt(device(), request, protocol);
}

void Reader::getAtr(IoRequest& request) {
  logInfo("[GATT]SCARD_ATTR_ATR_STRING");
  Bytes atr;
  if (QueryAtr(atr, false) != QueryResult::kSuccess) {
    logError(kNoMediaCode, "[GATT]SCARD_ATTR_ATR_STRING: STATUS_NO_MEDIA");
    finish(request, status::kNoMedia, kGetHandler, __LINE__);
    return;
  }
  MemoryUtil::setBuffer(device(), request, atr);
}

void Reader::answerText(IoRequest& request, const char* logText, const std::string& value) {
  logInfo("%s", logText);
  MemoryUtil::setString(device(), request, value);
}

void Reader::answerNumber(IoRequest& request, const char* logText, std::uint32_t value) {
  logInfo("%s", logText);
  MemoryUtil::setInt(device(), request, value);
}

void Reader::answerQuantity(IoRequest& request, const char* logText, std::uint32_t value,
                            const char* unit) {
  logInfo("%s: %d%s", logText, static_cast<int>(value), unit);
  MemoryUtil::setInt(device(), request, value);
}

void Reader::IoSmartCardGetVendorDefinedAttribute(std::uint32_t tag, IoRequest& request) {
  logError(platform::error::kNotSupported,
           "[GATT]SCARD_CLASS_VENDOR_DEFINED: ERROR_NOT_SUPPORTED:%08X", tag);
  finish(request, status::kNotSupported, "Reader::IoSmartCardGetVendorDefinedAttribute", __LINE__);
}

void Reader::IoSmartCardSetAttribute(IoRequest* request, std::size_t /*inLength*/,
                                     std::size_t /*outLength*/) {
  if (request == nullptr) {
    logError(kNoError, "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE: invalid request");
    return;
  }
  logInfo("[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE");
  std::size_t size = 0;
  std::uint32_t tag = 0;
  if (const Held<IoMemory> memory = request->inputMemory()) {
    const auto* data = static_cast<const std::uint8_t*>(memory->dataBuffer(&size));
    if (size >= sizeof tag) tag = loadLittleEndian(data);
  }
  if (size < sizeof tag) {
    refuseShortInput(*request, size, "[SATT]IOCTL_SMARTCARD_SET_ATTRIBUTE", kSetHandler);
    return;
  }
  if (tag != SCARD_ATTR_DEVICE_IN_USE) {
    logError(platform::error::kNotSupported, "[SATT]ERROR_NOT_SUPPORTED:%08X", tag);
    finish(*request, status::kNotSupported, kSetHandler, __LINE__);
    return;
  }
  logInfo("[SATT]SCARD_ATTR_DEVICE_IN_USE");  // the value is ignored
  finish(*request, status::kSuccess, kSetHandler, __LINE__);
}

}  // namespace zelta
