#include "agent/card/pcsc_card.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "agent/program/failure.h"
#include "contract/bytes.h"
#include "platform/process/wipe.h"

namespace zelta::agent {

namespace {

constexpr DWORD kProtocols = SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1;
// The service's special name whose state changes when a reader comes or goes.
constexpr char kReaderChanges[] = "\\\\?PnP?\\Notification";
constexpr std::size_t kLongestAtr = 36;
// An extended APDU with the most data.
constexpr std::size_t kLongestResponse = 65548;
// Interval at which a service that has gone is looked for.
constexpr std::chrono::seconds kServiceRetry{1};
// A missing reader is looked for again after this many milliseconds at the latest.
constexpr DWORD kReaderRetry = 1000;
constexpr std::chrono::milliseconds kCancelAgain{50};
constexpr unsigned kEventCountShift = 16;

// The card, or its reader, is not there.
constexpr LONG kCardGone[] = {SCARD_W_REMOVED_CARD, SCARD_E_NO_SMARTCARD,
                              SCARD_E_READER_UNAVAILABLE, SCARD_E_UNKNOWN_READER};
// The service has ended, and with it every context.
constexpr LONG kServiceGone[] = {SCARD_E_NO_SERVICE, SCARD_E_SERVICE_STOPPED,
                                 SCARD_E_SYSTEM_CANCELLED, SCARD_E_INVALID_HANDLE, kStaleContext};
// The service knows no reader of that name, or no reader at all.
constexpr LONG kNoReader[] = {SCARD_E_UNKNOWN_READER, SCARD_E_NO_READERS_AVAILABLE};

template <std::size_t kCount>
bool isOneOf(const LONG (&results)[kCount], LONG result) {
  return std::find(std::begin(results), std::end(results), result) != std::end(results);
}

// Wipes a buffer's first bytes at the end of a scope.
struct Wiped {
  ~Wiped() { platform::wipe(buffer.data(), size); }
  Bytes& buffer;
  std::size_t size;
};

}  // namespace

PcscCard::PcscCard(const std::string& readerName, Log& log)
    : reader_(toReaderName(readerName)),
      missing_("There is no reader '" + readerName +
               "', which is waited for; to see them: " + kShowReaders),
      log_(log),
      received_(kLongestResponse) {}

PcscCard::~PcscCard() { stop(); }

void PcscCard::start(CardListener& listener) {
  const LONG result = openContext();
  const bool comesWithReader = kServiceNeedsReader && result == SCARD_E_NO_SERVICE;
  if (result != SCARD_S_SUCCESS && !comesWithReader) {
    throw std::runtime_error("the smart card service cannot be reached: " + pcscText(result) +
                             " (to start it: " + kStartService + ")");
  }
  listener_ = &listener;
  try {
    watcher_ = std::thread([this] { runWatcher(); });
  } catch (...) {
    closeContext();
    listener_ = nullptr;  // not started
    throw;
  }
}

void PcscCard::runWatcher() {
  guarded([this](const char* problem) { listener_->cardFailed(problem); }, [this] { watch(); });
  const platform::MutexLock lock(mutex_);
  watcherEnded_ = true;
  changed_.notifyAll();
}

void PcscCard::interrupt() {
  const platform::MutexLock lock(mutex_);
  ending_ = true;
  if (following_) SCardCancel(followContext_);
  changed_.notifyAll();
}

void PcscCard::stop() {
  if (listener_ == nullptr) return;
  interrupt();
  {
    // A cancel that comes just before the wait begins is lost, so it is repeated until it has
    // taken effect.
    platform::MutexLock lock(mutex_);
    const auto ended = [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return watcherEnded_; };
    while (!changed_.waitFor(lock, kCancelAgain, ended)) {
      if (following_) SCardCancel(followContext_);
    }
  }
  watcher_.join();
  dropHandle();
  closeContext();
  listener_ = nullptr;
}

std::string PcscCard::insert() { return "the card is in a real reader; put it in by hand"; }

std::string PcscCard::remove() { return "the card is in a real reader; pull it by hand"; }

LONG PcscCard::openContext() {
  const LONG result = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_);
  if (result != SCARD_S_SUCCESS) context_ = 0;
  return result;
}

void PcscCard::closeContext() {
  if (context_ != 0) SCardReleaseContext(context_);
  context_ = 0;
}

void PcscCard::dropHandle() {
  if (hasHandle_) SCardDisconnect(handle_, SCARD_LEAVE_CARD);
  hasHandle_ = false;
}

void PcscCard::noteFailure(LONG result, const char* what) {
  log_.warning(std::string(what) + ": " + pcscText(result));
  dropHandle();
  const bool serviceGone = isOneOf(kServiceGone, result);
  if (serviceGone || isOneOf(kCardGone, result)) setPresent(false);
  if (serviceGone) closeContext();  // if the service is back, a new one helps the next call
}

bool PcscCard::connect() {
  if (hasHandle_) return true;
  LONG result = context_ != 0 ? SCARD_S_SUCCESS : openContext();
  if (result == SCARD_S_SUCCESS) {
    result = SCardConnect(context_, reader_.c_str(), SCARD_SHARE_SHARED, kProtocols, &handle_,
                          &protocol_);
  }
  hasHandle_ = result == SCARD_S_SUCCESS;
  if (!hasHandle_) noteFailure(result, "Connecting to the card");
  return hasHandle_;
}

Bytes PcscCard::readAtr() {
  std::array<BYTE, kLongestAtr> buffer{};
  auto length = static_cast<DWORD>(buffer.size());
  const LONG result =
      SCardStatus(handle_, nullptr, nullptr, nullptr, nullptr, buffer.data(), &length);
  if (result != SCARD_S_SUCCESS) {
    noteFailure(result, "Reading the ATR");
    return {};
  }
  return Bytes(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(length));
}

Bytes PcscCard::reset() {
  if (!connect()) return {};
  const LONG result =
      SCardReconnect(handle_, SCARD_SHARE_SHARED, kProtocols, SCARD_RESET_CARD, &protocol_);
  if (result != SCARD_S_SUCCESS) {
    noteFailure(result, "Resetting the card");
    return {};
  }
  return readAtr();
}

Bytes PcscCard::atr() { return connect() ? readAtr() : Bytes(); }

PcscCard::Response PcscCard::transmitOnce(const Bytes& command) {
  const SCARD_IO_REQUEST request = {protocol_, sizeof(SCARD_IO_REQUEST)};
  auto length = static_cast<DWORD>(received_.size());
  const LONG result =
      SCardTransmit(handle_, &request, command.data(), static_cast<DWORD>(command.size()), nullptr,
                    received_.data(), &length);
  const bool succeeded = result == SCARD_S_SUCCESS;
  // A failure does not say how much has come.
  const Wiped wiped{received_, succeeded ? length : received_.size()};
  if (!succeeded) return {result, {}};
  const auto end = received_.begin() + static_cast<std::ptrdiff_t>(length);
  return {result, Bytes(received_.begin(), end)};
}

Bytes PcscCard::transmit(const Bytes& command) {
  if (!connect()) return {};
  Response response = transmitOnce(command);
  if (response.result == SCARD_W_RESET_CARD) {
    // Another program has reset the card. The driver cannot be told, so its command goes on.
    response.result =
        SCardReconnect(handle_, SCARD_SHARE_SHARED, kProtocols, SCARD_LEAVE_CARD, &protocol_);
    if (response.result == SCARD_S_SUCCESS) response = transmitOnce(command);
  }
  if (response.result != SCARD_S_SUCCESS) {
    noteFailure(response.result, "Sending a command to the card");
  }
  return std::move(response.bytes);  // a copy would leave the bytes behind
}

void PcscCard::setPresent(bool present) {
  const platform::MutexLock lock(mutex_);
  if (ending_ || present_ == present) return;
  present_ = present;
  if (present) {
    listener_->cardInserted();
  } else {
    listener_->cardRemoved();
  }
}

void PcscCard::takeState(DWORD state) {
  const bool isIn = (state & SCARD_STATE_PRESENT) != 0;
  const bool wasIn = (lastState_ & SCARD_STATE_PRESENT) != 0;
  const bool counted = state >> kEventCountShift != lastState_ >> kEventCountShift;
  lastState_ = state;
  // A different count with a card before and after: the card was changed in between.
  if (isIn && wasIn && counted) setPresent(false);
  // Without a change since, a card that was found gone meanwhile stays gone.
  if (isIn != wasIn || counted) setPresent(isIn);
}

bool PcscCard::isEnding() {
  const platform::MutexLock lock(mutex_);
  return ending_;
}

LONG PcscCard::waitForChange(SCARDCONTEXT context, SCARD_READERSTATE* states, DWORD count,
                             DWORD limit) {
  {
    const platform::MutexLock lock(mutex_);
    if (ending_) return SCARD_E_CANCELLED;
    followContext_ = context;
    following_ = true;
  }
  const LONG result = SCardGetStatusChange(context, limit, states, count);
  const platform::MutexLock lock(mutex_);
  following_ = false;
  return result;
}

void PcscCard::follow(SCARDCONTEXT context) {
  const ReaderName readerChanges = toReaderName(kReaderChanges);
  std::array<SCARD_READERSTATE, 2> states{};
  states[0].szReader = readerChanges.c_str();
  states[1].szReader = reader_.c_str();
  bool missing = false;
  while (!isEnding()) {
    LONG result =
        waitForChange(context, states.data(), static_cast<DWORD>(states.size()), INFINITE);
    const bool unknown = (states[1].dwEventState & SCARD_STATE_UNKNOWN) != 0;
    const bool wasMissing = missing;
    missing = isOneOf(kNoReader, result) || (result == SCARD_S_SUCCESS && unknown);
    if (missing && !wasMissing) log_.warning(missing_);
    if (missing) {
      // Not there (yet): only its coming can be waited for. The state that says so is not handed
      // back, because the reader would then be ignored.
      takeState(SCARD_STATE_UNKNOWN);
      states[1].dwCurrentState = SCARD_STATE_UNAWARE;
      result = waitForChange(context, states.data(), 1, kReaderRetry);
    } else if (result == SCARD_S_SUCCESS) {
      states[1].dwCurrentState = states[1].dwEventState;
      takeState(states[1].dwEventState);
    }
    states[0].dwCurrentState = states[0].dwEventState;
    if (result == SCARD_S_SUCCESS || result == SCARD_E_TIMEOUT) continue;
    if (result != SCARD_E_CANCELLED && !isOneOf(kNoReader, result)) {
      log_.warning("Watching the reader: " + pcscText(result));
    }
    return;
  }
}

void PcscCard::watch() {
  for (;;) {
    SCARDCONTEXT context = 0;
    if (SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context) == SCARD_S_SUCCESS) {
      follow(context);
      SCardReleaseContext(context);
    }
    takeState(SCARD_STATE_UNKNOWN);
    platform::MutexLock lock(mutex_);
    changed_.waitFor(lock, kServiceRetry,
                     [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return ending_; });
    if (ending_) return;
  }
}

}  // namespace zelta::agent
