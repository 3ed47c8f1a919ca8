#include "pcsc/channel.h"

#include <new>
#include <utility>

namespace zelta::pcsc {

using framework::HRESULT;
using platform::MutexLock;

namespace {

// SCARD_IO_HEADER's protocols.
constexpr DWORD kPciT0 = 0;
constexpr DWORD kPciT1 = 1;
constexpr DWORD kPciRaw = SCARD_PROTOCOL_RAW;

constexpr std::size_t kAttributeCapacity = MAX_BUFFER_SIZE;  // bytes

// Attributes have a class in the high word; what has none is pcscd's own.
constexpr DWORD kLastTagWithoutClass = 0xFFFF;
constexpr DWORD kLastTag = 0xFFFFFFFF;

bool isAttribute(DWORD tag) { return tag > kLastTagWithoutClass && tag <= kLastTag; }

// The driver ends these with a zero byte.
bool isText(std::uint32_t tag) {
  return tag == kAttributeVendorName || tag == kAttributeIfdType || tag == kAttributePipeName ||
         tag == kAttributeEventPipeName;
}

// The answer to a command that the driver did not carry out.
RESPONSECODE failureOf(HRESULT status) {
  if (status == kNoMedia) return IFD_ICC_NOT_PRESENT;
  if (status == host::kTimedOut) return IFD_RESPONSE_TIMEOUT;
  return IFD_COMMUNICATION_ERROR;
}

Bytes transmitInput(std::uint32_t protocol, const Bytes& command) {
  Bytes input;
  input.reserve(kTransmitHeaderSize + command.size());
  appendNumber(input, protocol);
  appendNumber(input, kTransmitHeaderSize);
  input.insert(input.end(), command.begin(), command.end());
  return input;
}

Reply attributeReply(std::uint32_t attribute, host::IoResult result) {
  if (result.status == kNotSupported) return {IFD_ERROR_TAG, {}};
  if (framework::failed(result.status)) return {failureOf(result.status), {}};
  if (result.information > result.output.size()) return {IFD_ERROR_INSUFFICIENT_BUFFER, {}};
  Bytes& value = result.output;
  if (isText(attribute) && !value.empty() && value.back() == 0) value.pop_back();
  return {IFD_SUCCESS, std::move(value)};
}

// What a request that has ended without the driver's result is answered with.
host::IoResult failure(HRESULT status) { return {status, 0, {}}; }

}  // namespace

Channel::Channel(std::shared_ptr<host::File> file, Log log, std::chrono::milliseconds controlLimit)
    : file_(std::move(file)),
      log_(std::move(log)),
      controlLimit_(controlLimit),
      presence_(std::make_shared<CardPresence>()),
      watch_(file_, presence_) {}

// What an abandoned request works on lives as long as the request itself does; the wait is for
// whoever opens the reader next.
Channel::~Channel() { presence_->awaitUnused(controlLimit_); }

void Channel::close() {
  presence_->close();
  watch_.stop();
}

host::IoResult Channel::control(std::uint32_t code, const Bytes& input,
                                std::size_t outputCapacity) {
  return file_->control(code, input, outputCapacity, controlLimit_);
}

std::shared_ptr<host::IoOperation> Channel::submit(
    std::uint32_t code, const Bytes& input, std::size_t outputCapacity,
    const std::shared_ptr<CardPresence::Request>& request) {
  try {
    return file_->submit(
        code, input, outputCapacity,
        [presence = presence_, request](const host::IoResult&) { presence->endRequest(*request); });
  } catch (const std::bad_alloc&) {
    presence_->endRequest(*request);
    throw;
  }
}

host::IoResult Channel::controlCard(CardNumber card, std::uint32_t code, const Bytes& input,
                                    std::size_t outputCapacity) {
  const auto request = std::make_shared<CardPresence::Request>();
  if (!presence_->beginRequest(card)) {
    presence_->refused();
    return failure(kNoMedia);
  }
  const auto operation = submit(code, input, outputCapacity, request);
  const CardPresence::RequestEnd end = presence_->awaitEnd(*request, card, controlLimit_);
  // The completion is about to return, or has.
  if (end == CardPresence::RequestEnd::kEnded && operation->wait(controlLimit_)) {
    return operation->result();
  }
  presence_->refused();
  operation->cancel();
  return failure(end == CardPresence::RequestEnd::kCardLeft ? kNoMedia : host::kTimedOut);
}

RESPONSECODE Channel::presence() {
  return presence_->reportCard() == kNoCard ? IFD_ICC_NOT_PRESENT : IFD_SUCCESS;
}

Reply Channel::power(DWORD action) {
  const CardUse use(*presence_);
  switch (action) {
    case IFD_POWER_UP:
      return reset(use.card(), kColdReset);
    case IFD_RESET:
      return reset(use.card(), kWarmReset);
    case IFD_POWER_DOWN:
      return powerDown(use.card());
    default:
      return {IFD_NOT_SUPPORTED, {}};
  }
}

Reply Channel::powerDown(CardNumber card) {
  // The driver would take a power-down for a card that is in.
  if (card == kNoCard) return {IFD_SUCCESS, {}};
  const host::IoResult result = controlCard(card, kIoctlPower, numberBytes(kPowerDown), 0);
  if (result.status == kNoMedia) return {IFD_SUCCESS, {}};
  if (framework::failed(result.status)) return {IFD_ERROR_POWER_ACTION, {}};
  noteProtocol(card, 0);
  return {IFD_SUCCESS, {}};
}

Reply Channel::reset(CardNumber card, std::uint32_t operation) {
  if (card == kNoCard) return {refusal(), {}};
  host::IoResult result = controlCard(card, kIoctlPower, numberBytes(operation), MAX_ATR_SIZE);
  if (framework::failed(result.status) || result.information == 0 ||
      result.information > result.output.size()) {
    return resetFailed(card, result);
  }
  const MutexLock lock(mutex_);
  session_ = {card, result.output, 0};
  return {IFD_SUCCESS, std::move(result.output)};
}

Reply Channel::resetFailed(CardNumber card, const host::IoResult& result) {
  if (framework::succeeded(result.status)) {
    log_(LogLevel::kError, "the card's answer to reset has " + std::to_string(result.information) +
                               " bytes; 1 to " + std::to_string(MAX_ATR_SIZE) + " are possible");
  }
  if (sessionOf(card).card == card) cycle(card);
  return {result.status == kNoMedia ? IFD_ICC_NOT_PRESENT : IFD_ERROR_POWER_ACTION, {}};
}

RESPONSECODE Channel::setProtocol(DWORD protocol) {
  if (protocol != SCARD_PROTOCOL_T0 && protocol != SCARD_PROTOCOL_T1) {
    return IFD_PROTOCOL_NOT_SUPPORTED;
  }
  const CardUse use(*presence_);
  if (use.card() == kNoCard) return refusal();
  const auto mask = static_cast<std::uint32_t>(protocol);
  const host::IoResult result = controlCard(use.card(), kIoctlSetProtocol, numberBytes(mask), 0);
  if (framework::succeeded(result.status)) {
    noteProtocol(use.card(), mask);
    return IFD_SUCCESS;
  }
  if (result.status == kNotSupported) return IFD_PROTOCOL_NOT_SUPPORTED;
  if (result.status == kNoMedia) cycle(use.card());
  return failureOf(result.status);
}

Reply Channel::transmit(const Apdu& command) {
  if (command.protocol != kPciT0 && command.protocol != kPciT1 && command.protocol != kPciRaw) {
    return {IFD_PROTOCOL_NOT_SUPPORTED, {}};
  }
  const CardUse use(*presence_);
  if (use.card() == kNoCard) return {refusal(), {}};
  std::uint32_t protocol = 0;
  host::IoResult result = exchange(use.card(), command, &protocol);
  if (framework::succeeded(result.status)) return checkAnswer(protocol, std::move(result));
  // pcscd takes the card for absent with this answer, without saying so to anyone.
  if (result.status == kNoMedia) cycle(use.card());
  return {failureOf(result.status), {}};
}

host::IoResult Channel::exchange(CardNumber card, const Apdu& command, std::uint32_t* protocol) {
  const std::size_t capacity = kTransmitHeaderSize + command.answerCapacity;
  *protocol = sessionOf(card).protocol;
  host::IoResult result =
      controlCard(card, kIoctlTransmit, transmitInput(*protocol, command.bytes), capacity);
  if (result.status != kInvalidDeviceState) return result;
  // Refused without being sent: the driver has another current protocol. Before one is chosen it
  // may be what the card offered, by the protocol's number and not by its mask.
  host::IoResult current =
      controlCard(card, kIoctlGetAttribute, numberBytes(kAttributeCurrentProtocol), kNumberSize);
  if (current.status == kNoMedia) return current;
  if (framework::failed(current.status) || current.output.size() < kNumberSize) return result;
  const std::uint32_t driverProtocol = numberAt(current.output, 0);
  if (driverProtocol == *protocol) return result;
  *protocol = driverProtocol;
  noteProtocol(card, driverProtocol);
  return controlCard(card, kIoctlTransmit, transmitInput(driverProtocol, command.bytes), capacity);
}

Reply Channel::checkAnswer(std::uint32_t protocol, host::IoResult result) {
  if (result.information > result.output.size()) return {IFD_ERROR_INSUFFICIENT_BUFFER, {}};
  Bytes& answer = result.output;
  if (answer.size() < kTransmitHeaderSize || numberAt(answer, 0) != protocol ||
      numberAt(answer, kNumberSize) != kTransmitHeaderSize) {
    log_(LogLevel::kError, "the driver's answer to a command has no valid header (" +
                               std::to_string(answer.size()) + " bytes)");
    return {IFD_COMMUNICATION_ERROR, {}};
  }
  answer.erase(answer.begin(), answer.begin() + kTransmitHeaderSize);
  return {IFD_SUCCESS, std::move(answer)};
}

Reply Channel::attribute(DWORD tag) {
  if (!isAttribute(tag)) return {IFD_ERROR_TAG, {}};
  const auto attribute = static_cast<std::uint32_t>(tag);
  if (attribute == kAttributeAtr) return atr();
  return attributeReply(attribute,
                        control(kIoctlGetAttribute, numberBytes(attribute), kAttributeCapacity));
}

Reply Channel::atr() {
  const CardUse use(*presence_);
  if (use.card() == kNoCard) return {IFD_ICC_NOT_PRESENT, {}};
  Bytes atr = sessionOf(use.card()).atr;
  if (!atr.empty()) return {IFD_SUCCESS, std::move(atr)};
  return attributeReply(kAttributeAtr, controlCard(use.card(), kIoctlGetAttribute,
                                                   numberBytes(kAttributeAtr), kAttributeCapacity));
}

RESPONSECODE Channel::setAttribute(DWORD tag, const Bytes& value) {
  if (!isAttribute(tag)) return IFD_ERROR_TAG;
  if (value.size() > kAttributeCapacity) return IFD_ERROR_SET_FAILURE;
  Bytes input = numberBytes(static_cast<std::uint32_t>(tag));
  input.insert(input.end(), value.begin(), value.end());
  const HRESULT status = control(kIoctlSetAttribute, input, 0).status;
  if (framework::succeeded(status)) return IFD_SUCCESS;
  return status == kNotSupported ? IFD_ERROR_TAG : IFD_ERROR_SET_FAILURE;
}

RESPONSECODE Channel::refusal() {
  presence_->refused();
  return IFD_ICC_NOT_PRESENT;
}

void Channel::cycle(CardNumber card) {
  presence_->refused();  // first: the cycle wakes the polling function
  presence_->cycle(card);
}

Channel::Session Channel::sessionOf(CardNumber card) const {
  const MutexLock lock(mutex_);
  return session_.card == card ? session_ : Session();
}

void Channel::noteProtocol(CardNumber card, std::uint32_t protocol) {
  const MutexLock lock(mutex_);
  if (session_.card == card) session_.protocol = protocol;
}

}  // namespace zelta::pcsc
