#include "tests/doubles/agent/fake_winscard.h"

#include <algorithm>
#include <utility>

namespace zelta::test {

namespace {

FakeWinscard* current = nullptr;

}  // namespace

FakeWinscard::FakeWinscard() { current = this; }
FakeWinscard::~FakeWinscard() { current = nullptr; }

void FakeWinscard::setReader(bool there) {
  const auto state = lock();
  state->reader = there;
  ++state->readerChanges;
}

void FakeWinscard::changeCard(bool in, DWORD changes) {
  const auto state = lock();
  state->card = in;
  state->lost = false;
  state->changes += changes;
}

}  // namespace zelta::test

using zelta::test::current;
using State = zelta::test::FakeWinscard::State;
// Of the texts that the functions take.
using Char = zelta::agent::ReaderName::value_type;

namespace {

constexpr unsigned kCountShift = 16;
constexpr BYTE kAtr[] = {0x3B, 0x00};

bool isReaderChanges(const SCARD_READERSTATE& state) {
  const zelta::agent::ReaderName name = state.szReader;
  return name.find(zelta::agent::toReaderName("PnP")) != zelta::agent::ReaderName::npos;
}

DWORD cardState(const State& service) {
  return (service.card ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY) | service.changes << kCountShift;
}

LONG unknownReader(const State& service, SCARD_READERSTATE& state) {
  if (!service.tellsByState) return SCARD_E_UNKNOWN_READER;
  state.dwEventState = SCARD_STATE_UNKNOWN | SCARD_STATE_IGNORE | SCARD_STATE_CHANGED;
  return SCARD_S_SUCCESS;
}

LONG cardResult(const State& service) {
  if (!service.up) return SCARD_E_NO_SERVICE;
  if (!service.reader) return SCARD_E_READER_UNAVAILABLE;
  return service.card && !service.lost ? SCARD_S_SUCCESS : SCARD_E_NO_SMARTCARD;
}

}  // namespace

extern "C" {

LONG SCardEstablishContext(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT context) {
  const auto service = current->lock();
  if (!service->up) return SCARD_E_NO_SERVICE;
  ++service->contexts;
  *context = 1;
  return SCARD_S_SUCCESS;
}

LONG SCardReleaseContext(SCARDCONTEXT) {
  --current->lock()->contexts;
  return SCARD_S_SUCCESS;
}

LONG SCardCancel(SCARDCONTEXT) {
  const auto service = current->lock();
  // Like the real one, it ends only a wait that has begun.
  service->cancelled = service->watched;
  return SCARD_S_SUCCESS;
}

LONG SCardGetStatusChange(SCARDCONTEXT, DWORD limit, SCARD_READERSTATE* states, DWORD count) {
  auto service = current->lock();
  SCARD_READERSTATE* card = nullptr;
  for (DWORD i = 0; i < count; ++i) {
    if (!isReaderChanges(states[i])) card = &states[i];
  }
  if (!service->up) return SCARD_E_NO_SERVICE;
  if (card != nullptr && (card->dwCurrentState & SCARD_STATE_IGNORE) != 0) card = nullptr;
  if (card != nullptr && !service->reader) return unknownReader(*service, *card);
  const auto done = [card, readerChanges = service->readerChanges](const State& now) {
    const bool news =
        card != nullptr && (card->dwCurrentState == SCARD_STATE_UNAWARE ||
                            (card->dwCurrentState & ~SCARD_STATE_CHANGED) != cardState(now));
    return now.cancelled || !now.up || now.readerChanges != readerChanges || news;
  };
  service->watched = true;
  bool inTime = true;
  if (limit == INFINITE) {
    service.wait(done);
  } else {
    inTime = service.waitFor(std::chrono::milliseconds(limit), done);
  }
  service->watched = false;
  if (std::exchange(service->cancelled, false)) return SCARD_E_CANCELLED;
  if (!service->up) return SCARD_E_SERVICE_STOPPED;
  if (!inTime) return SCARD_E_TIMEOUT;
  if (card != nullptr && !service->reader) return unknownReader(*service, *card);
  if (card != nullptr) card->dwEventState = cardState(*service) | SCARD_STATE_CHANGED;
  return SCARD_S_SUCCESS;
}

LONG SCardConnect(SCARDCONTEXT context, const Char* reader, DWORD, DWORD, LPSCARDHANDLE handle,
                  LPDWORD protocol) {
  if (context == 0) return SCARD_E_INVALID_HANDLE;
  const auto service = current->lock();
  service->calls.emplace_back("connect");
  if (reader != zelta::agent::toReaderName(zelta::test::kFakeReader)) return SCARD_E_UNKNOWN_READER;
  *handle = 1;
  *protocol = SCARD_PROTOCOL_T1;
  return cardResult(*service);
}

LONG SCardReconnect(SCARDHANDLE, DWORD, DWORD, DWORD initialization, LPDWORD protocol) {
  const auto service = current->lock();
  service->calls.emplace_back(initialization == SCARD_RESET_CARD ? "reset" : "leave");
  *protocol = SCARD_PROTOCOL_T1;
  return cardResult(*service);
}

LONG SCardDisconnect(SCARDHANDLE, DWORD) {
  current->lock()->calls.emplace_back("disconnect");
  return SCARD_S_SUCCESS;
}

LONG SCardStatus(SCARDHANDLE, Char*, LPDWORD, LPDWORD, LPDWORD, LPBYTE atr, LPDWORD length) {
  std::copy(std::begin(kAtr), std::end(kAtr), atr);
  *length = sizeof kAtr;
  return cardResult(*current->lock());
}

LONG SCardTransmit(SCARDHANDLE, const SCARD_IO_REQUEST* request, LPCBYTE command, DWORD size,
                   SCARD_IO_REQUEST*, LPBYTE response, LPDWORD length) {
  if (request->dwProtocol != SCARD_PROTOCOL_T1) return SCARD_E_PROTO_MISMATCH;
  const auto service = current->lock();
  service->calls.emplace_back("transmit");
  if (const LONG result = cardResult(*service)) return result;
  std::copy(command, command + size, response);
  if (!service->transmitResults.empty()) {
    const LONG result = service->transmitResults.front();
    service->transmitResults.pop_front();
    if (result != SCARD_S_SUCCESS) return result;
  }
  *length = size;
  return SCARD_S_SUCCESS;
}

#if !defined(_WIN32)
const char* pcsc_stringify_error(const LONG) { return "a PC/SC failure"; }
#endif
}
