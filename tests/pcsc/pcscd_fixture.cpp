#include "tests/pcsc/pcscd_fixture.h"

#include <iostream>

#include "contract/bytes.h"

namespace zelta::test {

namespace {

constexpr unsigned kCounterShift = 16;
constexpr std::size_t kLongestAnswer = 65538;  // data and status word

}  // namespace

Client::Client() {
  EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_),
            SCARD_S_SUCCESS);
}

Client::~Client() {
  if (card_ != 0) SCardDisconnect(card_, SCARD_LEAVE_CARD);
  SCardReleaseContext(context_);
}

std::vector<std::string> Client::readers() {
  DWORD length = 0;
  std::vector<std::string> names;
  if (SCardListReaders(context_, nullptr, nullptr, &length) != SCARD_S_SUCCESS) return names;
  std::string list(length, '\0');
  if (SCardListReaders(context_, nullptr, list.data(), &length) != SCARD_S_SUCCESS) return names;
  for (const char* name = list.c_str(); *name != '\0'; name += names.back().size() + 1) {
    names.emplace_back(name);
  }
  return names;
}

std::optional<Client::State> Client::change(DWORD* known) {
  SCARD_READERSTATE state = {};
  state.szReader = kReaderName;
  state.dwCurrentState = *known;
  if (SCardGetStatusChange(context_, kLimit, &state, 1) != SCARD_S_SUCCESS) return std::nullopt;
  *known = state.dwEventState;
  return State{(state.dwEventState & SCARD_STATE_PRESENT) != 0,
               (state.dwEventState & SCARD_STATE_MUTE) != 0,
               static_cast<unsigned>(state.dwEventState >> kCounterShift),
               Bytes(state.rgbAtr, state.rgbAtr + state.cbAtr)};
}

Client::State Client::state() {
  DWORD known = SCARD_STATE_UNAWARE;
  const std::optional<State> now = change(&known);
  EXPECT_TRUE(now.has_value());
  return now.value_or(State());
}

LONG Client::connect(DWORD share, DWORD protocols) {
  return SCardConnect(context_, kReaderName, share, protocols, &card_, &protocol_);
}

LONG Client::reconnect(DWORD initialization) {
  return SCardReconnect(card_, SCARD_SHARE_SHARED, SCARD_PROTOCOL_ANY, initialization, &protocol_);
}

LONG Client::disconnect(DWORD disposition) {
  const LONG result = SCardDisconnect(card_, disposition);
  card_ = 0;
  return result;
}

LONG Client::transmit(const Bytes& command, Bytes* answer) {
  answer->assign(kLongestAnswer, 0);
  DWORD length = answer->size();
  const SCARD_IO_REQUEST* pci = protocol_ == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1;
  const LONG result =
      SCardTransmit(card_, pci, command.data(), command.size(), nullptr, answer->data(), &length);
  answer->resize(result == SCARD_S_SUCCESS ? length : 0);
  return result;
}

LONG Client::attribute(DWORD tag, Bytes* value) {
  value->assign(MAX_BUFFER_SIZE, 0);
  DWORD length = value->size();
  const LONG result = SCardGetAttrib(card_, tag, value->data(), &length);
  value->resize(result == SCARD_S_SUCCESS ? length : 0);
  return result;
}

LONG Client::control(DWORD code, Bytes* answer) {
  answer->assign(MAX_BUFFER_SIZE, 0);
  DWORD length = 0;
  const LONG result =
      SCardControl(card_, code, nullptr, 0, answer->data(), answer->size(), &length);
  answer->resize(result == SCARD_S_SUCCESS ? length : 0);
  return result;
}

PcscdTest::~PcscdTest() {
  client_.reset();
  if (pcscd_.running()) pcscd_.end(SIGTERM);
  if (HasFailure()) std::cout << "--- pcscd\n" << pcscd_.log() << PrivatePcscd::driverLog();
}

void PcscdTest::start(PrivatePcscd::Options options) {
  if (options.modulePath.empty()) options.modulePath = ZELTA_VSC_MODULE;
  ASSERT_TRUE(pcscd_.start(options));
  client_.emplace();
}

void PcscdTest::startWithCard() {
  start();
  agent_.setCardIn();
  ASSERT_TRUE(agent_.connect());
  ASSERT_TRUE(client_->waitForCard().has_value());
  ASSERT_EQ(client_->connect(), SCARD_S_SUCCESS);
}

void PcscdTest::expectPromptEnd(int signal) {
  client_.reset();
  const std::optional<PrivatePcscd::End> end = pcscd_.end(signal);
  ASSERT_TRUE(end.has_value()) << "pcscd did not end";
  EXPECT_EQ(end->signal, 0) << "pcscd died";
  EXPECT_LT(end->took, std::chrono::seconds(10));
}

}  // namespace zelta::test
