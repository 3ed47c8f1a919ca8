// The reader's attributes. Each is a row in the table of contract/attributes.h, which says how it
// is answered and logged, and a row here (or in a deriving reader) with its value.
#include "contract/attributes.h"

#include <algorithm>
#include <iterator>
#include <type_traits>

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
// Intentional: both, whatever the card offers.
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

// The source of an attribute's value: a constant, a member, or a handler.
struct Reader::AttributeSource {
  std::uint32_t tag;
  std::variant<std::uint32_t, const Value Reader::*, const std::string Reader::*,
               void (Reader::*)(IoRequest&, const Attribute&)>
      from;
};

const Reader::AttributeSource Reader::kAttributeSources[] = {
    {SCARD_ATTR_VENDOR_NAME, &Reader::vendorName_},
    {SCARD_ATTR_VENDOR_IFD_TYPE, &Reader::ifdType_},
    {SCARD_ATTR_CHANNEL_ID, kChannelId},
    {SCARD_ATTR_PROTOCOL_TYPES, kProtocolTypes},
    {SCARD_ATTR_DEFAULT_CLK, kDefaultClock},
    {SCARD_ATTR_MAX_CLK, &Reader::maxClock_},
    {SCARD_ATTR_DEFAULT_DATA_RATE, &Reader::defaultDataRate_},
    {SCARD_ATTR_MAX_DATA_RATE, &Reader::maxDataRate_},
    {SCARD_ATTR_MAX_IFSD, kMaxIfsd},
    {SCARD_ATTR_CHARACTERISTICS, kNoCharacteristics},
    {RPC_TYPE, &Reader::rpcType_},
    {SCARD_ATTR_CURRENT_PROTOCOL_TYPE, &Reader::answerCurrentProtocol},
    {SCARD_ATTR_CURRENT_IFSC, &Reader::ifsc_},
    {SCARD_ATTR_ATR_STRING, &Reader::answerAtr},
    {SCARD_ATTR_DEVICE_UNIT, &Reader::reportedUnitNumber_},
};

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
  const auto* const source =
      std::find_if(std::begin(kAttributeSources), std::end(kAttributeSources),
                   [tag](const AttributeSource& candidate) { return candidate.tag == tag; });
  const Attribute* const attribute = findAttribute(tag);
  if (attribute == nullptr || source == std::end(kAttributeSources)) {
    logError(platform::error::kNotSupported, "[GATT]ERROR_NOT_SUPPORTED:%08X", tag);
    finish(*request, status::kNotSupported, kGetHandler, __LINE__);
    return;
  }
  std::visit(
      [&](auto from) {
        if constexpr (std::is_same_v<decltype(from), std::uint32_t>) {
          answerAttribute(*request, *attribute, from);
        } else if constexpr (std::is_same_v<decltype(from), const Value Reader::*>) {
          answerAttribute(*request, *attribute, (this->*from).load(std::memory_order_relaxed));
        } else if constexpr (std::is_same_v<decltype(from), const std::string Reader::*>) {
          answerAttribute(*request, *attribute, this->*from);
        } else {
          (this->*from)(*request, *attribute);
        }
      },
      source->from);
}

void Reader::answerAttribute(IoRequest& request, const Attribute& attribute,
                             const AttributeValue& value, LogLevel level) {
  const auto* const text = std::get_if<std::string>(&value);
  const std::uint32_t number = text != nullptr ? 0 : std::get<std::uint32_t>(value);
  if (attribute.kind == AttributeKind::kQuantity) {
    logInfo("[GATT]%s: %d%s", attribute.name, static_cast<int>(number), attribute.unit);
  } else if (level == LogLevel::kDebug) {
    logDebug("[GATT]%s", attribute.name);
  } else {
    logInfo("[GATT]%s", attribute.name);
  }
  if (text != nullptr) {
    MemoryUtil::setString(device(), request, *text);
  } else {
    MemoryUtil::setInt(device(), request, number);
  }
}

void Reader::answerCurrentProtocol(IoRequest& request, const Attribute& attribute) {
  const std::uint32_t current = state();
  if (current <= SCARD_ABSENT) {
    logError(kNoMediaCode, "[GATT]%s: STATUS_NO_MEDIA", attribute.name);
    finish(request, status::kNoMedia, kGetHandler, __LINE__);
    return;
  }
  const std::uint32_t protocol = currentProtocol();
  logInfo("[GATT]%s: %d [state:%08X]", attribute.name, static_cast<int>(protocol), current);
  MemoryUtil::setInt(device(), request, protocol);
}

void Reader::answerAtr(IoRequest& request, const Attribute& attribute) {
  logInfo("[GATT]%s", attribute.name);
  Bytes atr;
  if (QueryAtr(atr, false) != QueryResult::kSuccess) {
    logError(kNoMediaCode, "[GATT]%s: STATUS_NO_MEDIA", attribute.name);
    finish(request, status::kNoMedia, kGetHandler, __LINE__);
    return;
  }
  MemoryUtil::setBuffer(device(), request, atr);
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
