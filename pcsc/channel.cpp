#include "pcsc/channel.h"

#include <algorithm>
#include <utility>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "pcsc/atr.h"

namespace zelta::pcsc {

using framework::HRESULT;
using platform::MutexLock;

namespace {

// SCARD_IO_HEADER's protocols.
constexpr DWORD kPciT0 = 0;
constexpr DWORD kPciT1 = 1;
constexpr DWORD kPciRaw = SCARD_PROTOCOL_RAW;

constexpr std::size_t kAttributeCapacity = MAX_BUFFER_SIZE;  // bytes

// Attributes have a class in the high word; tags without one are pcscd's own.
constexpr DWORD kLastTagWithoutClass = 0xFFFF;
constexpr DWORD kLastTag = 0xFFFFFFFF;

bool isAttribute(DWORD tag) { return tag > kLastTagWithoutClass && tag <= kLastTag; }

// The driver ends a text with a zero byte.
bool isText(std::uint32_t tag) {
  const Attribute* const attribute = findAttribute(tag);
  return attribute != nullptr && attribute->kind == AttributeKind::kText;
}

// The driver carries out these requests in its dispatch callback. This limits any that it keeps.
constexpr std::chrono::milliseconds kKeptLimit{10000};

// The driver refuses every protocol while it reads those of a card that has just entered. Each try
// asks the card after that, so it is over by the second.
constexpr int kProtocolTries = 3;

bool isNoCard(HRESULT status) { return status == status::kNoMedia || status == host::kDeviceGone; }

// The answer to a command that the driver did not carry out.
RESPONSECODE failureOf(HRESULT status) {
  if (isNoCard(status)) return IFD_ICC_NOT_PRESENT;
  if (status == host::kTimedOut) return IFD_RESPONSE_TIMEOUT;
  return IFD_COMMUNICATION_ERROR;
}

Reply attributeReply(std::uint32_t attribute, host::IoResult result) {
  if (result.status == status::kNotSupported) return {IFD_ERROR_TAG, {}};
  if (framework::failed(result.status)) return {failureOf(result.status), {}};
  if (result.information > result.output.size()) return {IFD_ERROR_INSUFFICIENT_BUFFER, {}};
  Bytes& value = result.output;
  if (isText(attribute) && !value.empty() && value.back() == 0) value.pop_back();
  return {IFD_SUCCESS, std::move(value)};
}

}  // namespace

Channel::Channel(std::string name, std::shared_ptr<host::File> file, ReaderFile::Renew renew,
                 Log log)
    : reader_(std::move(name), std::move(file), std::move(renew)),
      log_(std::move(log)),
      presence_(std::make_shared<CardPresence>()),
      watch_(reader_, presence_, log_) {}

void Channel::close() {
  presence_->close();
  watch_.stop();
}

host::IoResult Channel::control(std::uint32_t code, const Bytes& input,
                                std::size_t outputCapacity) {
  return reader_.get()->control(code, input, outputCapacity, kKeptLimit);
}

host::IoResult Channel::controlCard(CardNumber card, std::uint32_t code, const Bytes& input,
                                    std::size_t outputCapacity) {
  host::IoResult result;
  if (presence_->isShown(card)) result = control(code, input, outputCapacity);
  if (presence_->isShown(card)) return result;
  presence_->noteRefusal();
  return {status::kNoMedia, 0, {}};
}

Channel::Exchange Channel::transmitToCard(CardNumber card, const Apdu& command,
                                          std::uint32_t protocol) {
  Exchange exchange;
  exchange.protocol = protocol;
  std::array<std::uint8_t, kTransmitHeaderSize> header{};
  storeLittleEndian(header.data(), protocol);
  storeLittleEndian(header.data() + kNumberSize, kTransmitHeaderSize);
  if (presence_->isShown(card)) {
    exchange.end = reader_.get()->controlInParts(
        IOCTL_SMARTCARD_TRANSMIT, {{header.data(), header.size()}, command.bytes},
        {{exchange.answerHeader.data(), exchange.answerHeader.size()}, command.answer}, kKeptLimit);
  }
  if (presence_->isShown(card)) return exchange;
  presence_->noteRefusal();
  exchange.end = {status::kNoMedia, 0};
  return exchange;
}

RESPONSECODE Channel::checkPresence() {
  return presence_->reportCard() == kNoCard ? IFD_ICC_NOT_PRESENT : IFD_SUCCESS;
}

Reply Channel::power(DWORD action) {
  const CardUse use(*presence_);
  switch (action) {
    case IFD_POWER_UP:
      return reset(use.card(), SCARD_COLD_RESET);
    case IFD_RESET:
      return reset(use.card(), SCARD_WARM_RESET);
    case IFD_POWER_DOWN:
      return powerDown(use.card());
    default:
      return {IFD_NOT_SUPPORTED, {}};
  }
}

Reply Channel::powerDown(CardNumber card) {
  // The driver would take a power-down for a card that is in.
  if (card == kNoCard) return {IFD_SUCCESS, {}};
  const host::IoResult result =
      controlCard(card, IOCTL_SMARTCARD_POWER, numberBytes(SCARD_POWER_DOWN), 0);
  if (isNoCard(result.status)) return {IFD_SUCCESS, {}};
  if (framework::failed(result.status)) return {IFD_ERROR_POWER_ACTION, {}};
  noteProtocol(card, 0);
  return {IFD_SUCCESS, {}};
}

Reply Channel::reset(CardNumber card, std::uint32_t operation) {
  if (card == kNoCard) return {refuse(), {}};
  host::IoResult result =
      controlCard(card, IOCTL_SMARTCARD_POWER, numberBytes(operation), MAX_ATR_SIZE);
  if (framework::failed(result.status) || !isAtr(result)) return resetFailed(card, result.status);
  const MutexLock lock(mutex_);
  session_ = {card, result.output, 0};
  return {IFD_SUCCESS, std::move(result.output)};
}

Reply Channel::resetFailed(CardNumber card, HRESULT status) {
  if (hasAnswered(card)) reinsert(card);
  return {isNoCard(status) ? IFD_ICC_NOT_PRESENT : IFD_ERROR_POWER_ACTION, {}};
}

bool Channel::isAtr(const host::IoResult& result) const {
  if (result.information == 0 || result.information > MAX_ATR_SIZE) {
    log_(LogLevel::kError, "the card's answer to reset has " + std::to_string(result.information) +
                               " bytes; 1 to " + std::to_string(MAX_ATR_SIZE) + " are possible");
    return false;
  }
  if (isPossibleAtr(result.output)) return true;
  log_(LogLevel::kError, "the card sent no valid ATR: " + hexText(result.output));
  return false;
}

RESPONSECODE Channel::setProtocol(DWORD protocol) {
  if (protocol != SCARD_PROTOCOL_T0 && protocol != SCARD_PROTOCOL_T1) {
    return IFD_PROTOCOL_NOT_SUPPORTED;
  }
  const CardUse use(*presence_);
  if (use.card() == kNoCard) return refuse();
  const auto mask = static_cast<std::uint32_t>(protocol);
  const bool offered = (offeredProtocols(atrOf(use.card())) & mask) != 0;
  framework::HRESULT status = selectProtocol(use.card(), mask);
  for (int tries = 1; status == status::kNotSupported && offered && tries < kProtocolTries;
       ++tries) {
    status = selectProtocol(use.card(), mask);
  }
  if (framework::succeeded(status)) {
    noteProtocol(use.card(), mask);
    return IFD_SUCCESS;
  }
  if (status == status::kNotSupported) {
    if (offered) watch_.bringUpAnew();
    return IFD_PROTOCOL_NOT_SUPPORTED;
  }
  if (isNoCard(status)) reinsert(use.card());
  return failureOf(status);
}

framework::HRESULT Channel::selectProtocol(CardNumber card, std::uint32_t mask) {
  return controlCard(card, IOCTL_SMARTCARD_SET_PROTOCOL, numberBytes(mask), 0).status;
}

TransmitReply Channel::transmit(const Apdu& command) {
  if (command.protocol != kPciT0 && command.protocol != kPciT1 && command.protocol != kPciRaw) {
    return {IFD_PROTOCOL_NOT_SUPPORTED};
  }
  const CardUse use(*presence_);
  if (use.card() == kNoCard) return {refuse()};
  const Exchange done = exchange(use.card(), command);
  if (framework::failed(done.end.status)) {
    // pcscd takes the card for absent after this answer, without telling its clients.
    if (isNoCard(done.end.status)) reinsert(use.card());
    return {failureOf(done.end.status)};
  }
  const RESPONSECODE code = checkAnswer(done, command.answer.size);
  if (code != IFD_SUCCESS) return {code};
  // Another protocol than the command's if the driver, late to hear of the card's insertion, has
  // read its ATR meanwhile. The answer is still the command's.
  const std::uint32_t current = loadLittleEndian(done.answerHeader.data());
  if (current != done.protocol) noteProtocol(use.card(), current);
  return {IFD_SUCCESS, done.end.information - kTransmitHeaderSize};
}

Channel::Exchange Channel::exchange(CardNumber card, const Apdu& command) {
  Exchange first = transmitToCard(card, command, protocolOf(card));
  if (first.end.status != status::kInvalidDeviceState) return first;
  // Refused without being sent: the driver has another current protocol. Before one is chosen it
  // may be what the card offered, by the protocol's number and not by its mask.
  const std::optional<std::uint32_t> other = otherProtocol(card, first.protocol);
  if (!presence_->isShown(card)) {
    first.end = {status::kNoMedia, 0};
    return first;
  }
  if (!other) return first;
  noteProtocol(card, *other);
  return transmitToCard(card, command, *other);
}

std::optional<std::uint32_t> Channel::otherProtocol(CardNumber card, std::uint32_t known) {
  const host::IoResult current =
      controlCard(card, IOCTL_SMARTCARD_GET_ATTRIBUTE,
                  numberBytes(SCARD_ATTR_CURRENT_PROTOCOL_TYPE), kNumberSize);
  if (framework::failed(current.status) || current.output.size() < kNumberSize) return std::nullopt;
  const std::uint32_t protocol = loadLittleEndian(current.output.data());
  return protocol == known ? std::nullopt : std::optional<std::uint32_t>(protocol);
}

RESPONSECODE Channel::checkAnswer(const Exchange& exchange, std::size_t capacity) {
  const std::size_t size = exchange.end.information;
  if (size > kTransmitHeaderSize + capacity) return IFD_ERROR_INSUFFICIENT_BUFFER;
  const std::uint8_t* const length = exchange.answerHeader.data() + kNumberSize;
  if (size >= kTransmitHeaderSize && loadLittleEndian(length) == kTransmitHeaderSize) {
    return IFD_SUCCESS;
  }
  log_(LogLevel::kError,
       "the driver's answer to a command has no valid header (" + std::to_string(size) + " bytes)");
  return IFD_COMMUNICATION_ERROR;
}

Reply Channel::attribute(DWORD tag) {
  if (!isAttribute(tag)) return {IFD_ERROR_TAG, {}};
  const auto attribute = static_cast<std::uint32_t>(tag);
  if (attribute == SCARD_ATTR_ATR_STRING) return atr();
  return attributeReply(attribute, control(IOCTL_SMARTCARD_GET_ATTRIBUTE, numberBytes(attribute),
                                           kAttributeCapacity));
}

Reply Channel::atr() {
  const CardUse use(*presence_);
  if (use.card() == kNoCard) return {IFD_ICC_NOT_PRESENT, {}};
  Bytes known = atrOf(use.card());
  if (!known.empty()) return {IFD_SUCCESS, std::move(known)};
  const host::IoResult result = controlCard(use.card(), IOCTL_SMARTCARD_GET_ATTRIBUTE,
                                            numberBytes(SCARD_ATTR_ATR_STRING), kAttributeCapacity);
  if (framework::succeeded(result.status) && !isAtr(result)) return {};
  return attributeReply(SCARD_ATTR_ATR_STRING, result);
}

RESPONSECODE Channel::setAttribute(DWORD tag, const Bytes& value) {
  if (!isAttribute(tag)) return IFD_ERROR_TAG;
  if (value.size() > kAttributeCapacity) return IFD_ERROR_SET_FAILURE;
  Bytes input(kNumberSize + value.size());
  storeLittleEndian(input.data(), static_cast<std::uint32_t>(tag));
  std::copy(value.begin(), value.end(), input.begin() + kNumberSize);
  const HRESULT status = control(IOCTL_SMARTCARD_SET_ATTRIBUTE, input, 0).status;
  if (framework::succeeded(status)) return IFD_SUCCESS;
  return status == status::kNotSupported ? IFD_ERROR_TAG : IFD_ERROR_SET_FAILURE;
}

RESPONSECODE Channel::refuse() {
  presence_->noteRefusal();
  return IFD_ICC_NOT_PRESENT;
}

void Channel::reinsert(CardNumber card) {
  presence_->noteRefusal();  // first: what follows wakes the polling function
  presence_->reinsert(card);
}

bool Channel::hasAnswered(CardNumber card) const {
  const MutexLock lock(mutex_);
  return session_.card == card;
}

Bytes Channel::atrOf(CardNumber card) const {
  const MutexLock lock(mutex_);
  return session_.card == card ? session_.atr : Bytes();
}

std::uint32_t Channel::protocolOf(CardNumber card) const {
  const MutexLock lock(mutex_);
  return session_.card == card ? session_.protocol : 0;
}

void Channel::noteProtocol(CardNumber card, std::uint32_t protocol) {
  const MutexLock lock(mutex_);
  if (session_.card == card) session_.protocol = protocol;
}

}  // namespace zelta::pcsc
