// Selecting a protocol and passing command APDUs to the card.
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "diagnostics/log.h"
#include "driver/request/memory_util.h"
#include "platform/process/error.h"
#include "reader/reader.h"

namespace zelta {

namespace {

constexpr char kSetProtocolHandler[] = "Reader::IoSmartCardSetProtocol";
constexpr char kTransmitHandler[] = "Reader::IoSmartCardTransmit";

// Bits of the available protocols, by protocol number.
constexpr std::uint32_t kOffersT0 = 1u << 0;
constexpr std::uint32_t kOffersT1 = 1u << 1;

}  // namespace

void Reader::IoSmartCardSetProtocol(IoRequest* request, std::size_t /*inLength*/,
                                    std::size_t /*outLength*/) {
  if (request == nullptr) {
    logError(kNoError, "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL: invalid request");
    return;
  }
  if (!hasIntegerInput(*request, "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL", kSetProtocolHandler)) {
    return;
  }
  const auto mask = static_cast<std::uint32_t>(MemoryUtil::getInt(*request));
  logInfo("[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:%08X", mask);
  Bytes atr;  // not parsed: the protocols are those of the last initialisation
  if (QueryAtr(atr, true) != QueryResult::kSuccess) {
    setState(SCARD_ABSENT);
    logError(static_cast<std::uint32_t>(status::kNoMedia), "[SPRT]STATUS_NO_MEDIA");
    finish(*request, status::kNoMedia, kSetProtocolHandler, __LINE__);
    return;
  }
  setState(SCARD_SPECIFIC);
  if (!chooseProtocol(mask)) {
    setState(SCARD_NEGOTIABLE);
    logError(platform::error::kNotSupported, "[SPRT]ERROR_NOT_SUPPORTED");
    finish(*request, status::kNotSupported, kSetProtocolHandler, __LINE__);
    return;
  }
  // Intentional: no output. The caller is not told which protocol was chosen.
  finish(*request, status::kSuccess, kSetProtocolHandler, __LINE__);
  notifyCardReady();  // must not use the request, which is completed
}

// T=1 is preferred whenever both are accepted and offered.
bool Reader::chooseProtocol(std::uint32_t mask) {
  const std::uint32_t available = availableProtocols_.load(std::memory_order_relaxed);
  const bool anyProtocol = (mask & SCARD_PROTOCOL_DEFAULT) != 0;
  const bool offersT1 = (available & kOffersT1) != 0;
  const bool offersT0 = (available & kOffersT0) != 0;
  if (offersT1 && (mask & SCARD_PROTOCOL_T1) != 0) return storeProtocol(SCARD_PROTOCOL_T1);
  if (offersT0 && (mask & SCARD_PROTOCOL_T0) != 0) return storeProtocol(SCARD_PROTOCOL_T0);
  if (offersT1 && anyProtocol) return storeProtocol(SCARD_PROTOCOL_T1);
  if (offersT0 && anyProtocol) return storeProtocol(SCARD_PROTOCOL_T0);
  return false;
}

bool Reader::storeProtocol(std::uint32_t protocol) {
  currentProtocol_.store(protocol, std::memory_order_relaxed);
  logInfo(protocol == SCARD_PROTOCOL_T1 ? "PROTOCOL SET: T1" : "PROTOCOL SET: T0");
  return true;
}

void Reader::IoSmartCardTransmit(IoRequest* request, std::size_t /*inLength*/,
                                 std::size_t outLength) {
  if (request == nullptr) {
    logError(kNoError, "[TRSM]IOCTL_SMARTCARD_TRANSMIT: invalid request");
    return;
  }
  constexpr auto kStateCode = static_cast<std::uint32_t>(status::kInvalidDeviceState);
  logInfo("[TRSM]IOCTL_SMARTCARD_TRANSMIT");
  const std::optional<TransmitInput> input = readTransmit(*request);
  if (!input.has_value()) {
    logError(kStateCode, "[TRSM]STATUS_INVALID_DEVICE_STATE; failed to get request data");
    finish(*request, status::kInvalidDeviceState, kTransmitHandler, __LINE__);
    return;
  }
  if (input->protocol != currentProtocol()) {
    logError(kStateCode, "[TRSM]STATUS_INVALID_DEVICE_STATE; protocol:%08X", input->protocol);
    finish(*request, status::kInvalidDeviceState, kTransmitHandler, __LINE__);
    return;
  }
  transmit(*request, input->command.get(), outLength);
}

// Copies the APDU straight out of the request's memory.
std::optional<Reader::TransmitInput> Reader::readTransmit(IoRequest& request) {
  const InputBytes input(request);
  if (!input || input.size() < kTransmitHeaderSize) return std::nullopt;
  // Intentional: the header's length field is not consulted.
  return TransmitInput{loadLittleEndian(input.data()),
                       Bytes(input.data() + kTransmitHeaderSize, input.data() + input.size())};
}

void Reader::transmit(IoRequest& request, const Bytes& command, std::size_t outLength) {
  // What does not fit into the output is not written to it, so it need not be kept.
  ResponseBuffer response(outLength == 0 ? ResponseBuffer::kNoLimit : outLength);
  if (QueryTransmit(command, response) != QueryResult::kSuccess) {
    logError(static_cast<std::uint32_t>(status::kNoMedia), "[TRSM]STATUS_NO_MEDIA");
    finish(request, status::kNoMedia, kTransmitHandler, __LINE__);
    return;
  }
  storeLittleEndian(response.header(), currentProtocol());
  storeLittleEndian(response.header() + kNumberSize, kTransmitHeaderSize);
  MemoryUtil::setBuffer(device(), request, response.header(),
                        kTransmitHeaderSize + response.size());
}

}  // namespace zelta
