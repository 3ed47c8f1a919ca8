#include "tests/doubles/agent/fake_winscard.h"

#include <algorithm>
#include <utility>

namespace zelta::test {

using platform::MutexLock;

FakeWinscard* current = nullptr;

namespace {

constexpr unsigned kCountShift = 16;
constexpr BYTE kAtr[] = {0x3B, 0x00};

bool isReaderChanges(const SCARD_READERSTATE& state) {
  const agent::ReaderName name = state.szReader;
  return name.find(agent::toReaderName("PnP")) != agent::ReaderName::npos;
}

}  // namespace

FakeWinscard::FakeWinscard() { current = this; }
FakeWinscard::~FakeWinscard() { current = nullptr; }

void FakeWinscard::changeCard(bool in) {
  card_ = in;
  lost_ = false;
  ++changes_;
  changed_.notifyAll();
}

void FakeWinscard::setService(bool up) {
  const MutexLock lock(mutex_);
  up_ = up;
  changed_.notifyAll();
}

void FakeWinscard::setReader(bool there) {
  const MutexLock lock(mutex_);
  reader_ = there;
  ++readerChanges_;
  changed_.notifyAll();
}

void FakeWinscard::tellUnknownReaderByItsState() {
  const MutexLock lock(mutex_);
  tellsByState_ = true;
}

void FakeWinscard::insertCard() {
  const MutexLock lock(mutex_);
  changeCard(true);
}

void FakeWinscard::removeCard() {
  const MutexLock lock(mutex_);
  changeCard(false);
}

void FakeWinscard::swapCard() {
  const MutexLock lock(mutex_);
  changeCard(false);
  changeCard(true);
}

void FakeWinscard::loseCard() {
  const MutexLock lock(mutex_);
  lost_ = true;
}

void FakeWinscard::failTransmits(std::vector<LONG> results) {
  const MutexLock lock(mutex_);
  transmitResults_.assign(results.begin(), results.end());
}

std::vector<std::string> FakeWinscard::takeCalls() {
  const MutexLock lock(mutex_);
  return std::exchange(calls_, {});
}

std::size_t FakeWinscard::contexts() {
  const MutexLock lock(mutex_);
  return contexts_;
}

void FakeWinscard::waitUntilWatched() {
  MutexLock lock(mutex_);
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return watched_; });
}

LONG FakeWinscard::establish(LPSCARDCONTEXT context) {
  const MutexLock lock(mutex_);
  if (!up_) return SCARD_E_NO_SERVICE;
  ++contexts_;
  *context = 1;
  return SCARD_S_SUCCESS;
}

LONG FakeWinscard::release(SCARDCONTEXT) {
  const MutexLock lock(mutex_);
  --contexts_;
  return SCARD_S_SUCCESS;
}

LONG FakeWinscard::cancel() {
  const MutexLock lock(mutex_);
  // As the real one: it reaches a wait that has begun, and no other.
  cancelled_ = watched_;
  changed_.notifyAll();
  return SCARD_S_SUCCESS;
}

DWORD FakeWinscard::stateLocked() const {
  return (card_ ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY) | changes_ << kCountShift;
}

LONG FakeWinscard::unknownReader(SCARD_READERSTATE& state) const {
  if (!tellsByState_) return SCARD_E_UNKNOWN_READER;
  state.dwEventState = SCARD_STATE_UNKNOWN | SCARD_STATE_IGNORE | SCARD_STATE_CHANGED;
  return SCARD_S_SUCCESS;
}

LONG FakeWinscard::getStatusChange(DWORD limit, SCARD_READERSTATE* states, DWORD count) {
  MutexLock lock(mutex_);
  SCARD_READERSTATE* card = nullptr;
  for (DWORD i = 0; i < count; ++i) {
    if (!isReaderChanges(states[i])) card = &states[i];
  }
  if (!up_) return SCARD_E_NO_SERVICE;
  if (card != nullptr && (card->dwCurrentState & SCARD_STATE_IGNORE) != 0) card = nullptr;
  if (card != nullptr && !reader_) return unknownReader(*card);
  const DWORD readerChanges = readerChanges_;
  const auto done = [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    const bool news =
        card != nullptr && (card->dwCurrentState == SCARD_STATE_UNAWARE ||
                            (card->dwCurrentState & ~SCARD_STATE_CHANGED) != stateLocked());
    return cancelled_ || !up_ || readerChanges_ != readerChanges || news;
  };
  watched_ = true;
  changed_.notifyAll();
  bool inTime = true;
  if (limit == INFINITE) {
    changed_.wait(lock, done);
  } else {
    inTime = changed_.waitFor(lock, std::chrono::milliseconds(limit), done);
  }
  watched_ = false;
  if (std::exchange(cancelled_, false)) return SCARD_E_CANCELLED;
  if (!up_) return SCARD_E_SERVICE_STOPPED;
  if (!inTime) return SCARD_E_TIMEOUT;
  if (card != nullptr && !reader_) return unknownReader(*card);
  if (card != nullptr) card->dwEventState = stateLocked() | SCARD_STATE_CHANGED;
  return SCARD_S_SUCCESS;
}

LONG FakeWinscard::cardResult() const {
  if (!up_) return SCARD_E_NO_SERVICE;
  if (!reader_) return SCARD_E_READER_UNAVAILABLE;
  return card_ && !lost_ ? SCARD_S_SUCCESS : SCARD_E_NO_SMARTCARD;
}

LONG FakeWinscard::connect(const agent::ReaderName& reader, SCARDHANDLE* handle, DWORD* protocol) {
  const MutexLock lock(mutex_);
  calls_.emplace_back("connect");
  if (reader != agent::toReaderName(kFakeReader)) return SCARD_E_UNKNOWN_READER;
  *handle = 1;
  *protocol = SCARD_PROTOCOL_T1;
  return cardResult();
}

LONG FakeWinscard::reconnect(DWORD initialization, DWORD* protocol) {
  const MutexLock lock(mutex_);
  calls_.emplace_back(initialization == SCARD_RESET_CARD ? "reset" : "leave");
  *protocol = SCARD_PROTOCOL_T1;
  return cardResult();
}

LONG FakeWinscard::disconnect() {
  const MutexLock lock(mutex_);
  calls_.emplace_back("disconnect");
  return SCARD_S_SUCCESS;
}

LONG FakeWinscard::status(BYTE* atr, DWORD* length) {
  const MutexLock lock(mutex_);
  std::copy(std::begin(kAtr), std::end(kAtr), atr);
  *length = sizeof kAtr;
  return cardResult();
}

LONG FakeWinscard::transmit(const BYTE* command, DWORD size, BYTE* response, DWORD* length) {
  const MutexLock lock(mutex_);
  calls_.emplace_back("transmit");
  if (const LONG result = cardResult()) return result;
  if (!transmitResults_.empty()) {
    const LONG result = transmitResults_.front();
    transmitResults_.pop_front();
    if (result != SCARD_S_SUCCESS) return result;
  }
  std::copy(command, command + size, response);
  *length = size;
  return SCARD_S_SUCCESS;
}

}  // namespace zelta::test

using zelta::test::current;
// Of the texts that the functions take.
using Char = zelta::agent::ReaderName::value_type;

extern "C" {

LONG SCardEstablishContext(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT context) {
  return current->establish(context);
}
LONG SCardReleaseContext(SCARDCONTEXT context) { return current->release(context); }
LONG SCardCancel(SCARDCONTEXT) { return current->cancel(); }
LONG SCardGetStatusChange(SCARDCONTEXT, DWORD limit, SCARD_READERSTATE* states, DWORD count) {
  return current->getStatusChange(limit, states, count);
}
LONG SCardConnect(SCARDCONTEXT context, const Char* reader, DWORD, DWORD, LPSCARDHANDLE handle,
                  LPDWORD protocol) {
  if (context == 0) return SCARD_E_INVALID_HANDLE;
  return current->connect(reader, handle, protocol);
}
LONG SCardReconnect(SCARDHANDLE, DWORD, DWORD, DWORD initialization, LPDWORD protocol) {
  return current->reconnect(initialization, protocol);
}
LONG SCardDisconnect(SCARDHANDLE, DWORD) { return current->disconnect(); }
LONG SCardStatus(SCARDHANDLE, Char*, LPDWORD, LPDWORD, LPDWORD, LPBYTE atr, LPDWORD length) {
  return current->status(atr, length);
}
LONG SCardTransmit(SCARDHANDLE, const SCARD_IO_REQUEST* request, LPCBYTE command, DWORD size,
                   SCARD_IO_REQUEST*, LPBYTE response, LPDWORD length) {
  if (request->dwProtocol != SCARD_PROTOCOL_T1) return SCARD_E_PROTO_MISMATCH;
  return current->transmit(command, size, response, length);
}
#if !defined(_WIN32)
const char* pcsc_stringify_error(const LONG) { return "a PC/SC failure"; }
#endif
}
