// The real pcscd with the handler and the driver module, a client of it and an agent.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <reader.h>
#include <winscard.h>

#include <csignal>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "contract/bytes.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/mounts_linux.h"
#include "tests/support/private_pcscd.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

inline constexpr char kReaderName[] = "Zelta Virtual SmartCard Reader 00 00";

// A connection of one application.
class Client {
 public:
  static constexpr DWORD kLimit = 60000;  // milliseconds

  Client() {
    EXPECT_EQ(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_),
              SCARD_S_SUCCESS);
  }
  ~Client() {
    if (card_ != 0) SCardDisconnect(card_, SCARD_LEAVE_CARD);
    SCardReleaseContext(context_);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  std::vector<std::string> readers() {
    std::vector<std::string> names;
    Bytes list(MAX_BUFFER_SIZE);
    DWORD length = list.size();
    char* const text = reinterpret_cast<char*>(list.data());
    if (SCardListReaders(context_, nullptr, text, &length) != SCARD_S_SUCCESS) return names;
    for (const char* name = text; *name != '\0'; name += names.back().size() + 1) {
      names.emplace_back(name);
    }
    return names;
  }

  // The reader's state: its bits, the number of insertions and removals, the answer to reset.
  struct State {
    bool present = false;
    bool mute = false;
    unsigned counter = 0;
    Bytes atr;
  };
  State state() {
    DWORD known = SCARD_STATE_UNAWARE;
    std::optional<State> now = change(&known);
    EXPECT_TRUE(now.has_value());
    return now.value_or(State());
  }
  // Waits until `wanted` is true of the state; none if that has not come about in time.
  template <typename Wanted>
  std::optional<State> waitFor(Wanted wanted) {
    DWORD known = SCARD_STATE_UNAWARE;
    for (;;) {
      std::optional<State> now = change(&known);
      if (!now || wanted(*now)) return now;
    }
  }
  std::optional<State> waitForCard(bool present = true) {
    return waitFor([present](const State& now) { return now.present == present; });
  }
  std::optional<State> waitForCounter(bool present, unsigned counter) {
    return waitFor(
        [=](const State& now) { return now.present == present && now.counter >= counter; });
  }

  LONG connect(DWORD protocols = SCARD_PROTOCOL_ANY) {
    return SCardConnect(context_, kReaderName, SCARD_SHARE_SHARED, protocols, &card_, &protocol_);
  }
  LONG reconnect(DWORD initialization = SCARD_RESET_CARD) {
    return SCardReconnect(card_, SCARD_SHARE_SHARED, SCARD_PROTOCOL_ANY, initialization,
                          &protocol_);
  }
  LONG disconnect(DWORD disposition = SCARD_LEAVE_CARD) {
    const LONG result = SCardDisconnect(card_, disposition);
    card_ = 0;
    return result;
  }
  DWORD protocol() const { return protocol_; }

  struct Answer {
    LONG result = SCARD_F_INTERNAL_ERROR;
    Bytes bytes;  // empty if the call failed
  };
  Answer transmit(const Bytes& command) {
    const SCARD_IO_REQUEST* pci = protocol_ == SCARD_PROTOCOL_T0 ? SCARD_PCI_T0 : SCARD_PCI_T1;
    return answerOf(65536 + 2, [&](unsigned char* bytes, DWORD* length) {
      return SCardTransmit(card_, pci, command.data(), command.size(), nullptr, bytes, length);
    });
  }
  Answer attribute(DWORD tag) {
    return answerOf(MAX_BUFFER_SIZE, [&](unsigned char* bytes, DWORD* length) {
      return SCardGetAttrib(card_, tag, bytes, length);
    });
  }
  Answer control(DWORD code) {
    return answerOf(MAX_BUFFER_SIZE, [&](unsigned char* bytes, DWORD* length) {
      return SCardControl(card_, code, nullptr, 0, bytes, *length, length);
    });
  }

 private:
  // Waits for a state that differs from `known`, which it then is.
  std::optional<State> change(DWORD* known) {
    SCARD_READERSTATE state = {};
    state.szReader = kReaderName;
    state.dwCurrentState = *known;
    if (SCardGetStatusChange(context_, kLimit, &state, 1) != SCARD_S_SUCCESS) return std::nullopt;
    *known = state.dwEventState;
    return State{(state.dwEventState & SCARD_STATE_PRESENT) != 0,
                 (state.dwEventState & SCARD_STATE_MUTE) != 0,
                 static_cast<unsigned>(state.dwEventState >> 16),
                 Bytes(state.rgbAtr, state.rgbAtr + state.cbAtr)};
  }
  template <typename Call>
  static Answer answerOf(std::size_t capacity, Call call) {
    Answer answer{SCARD_S_SUCCESS, Bytes(capacity)};
    DWORD length = answer.bytes.size();
    answer.result = call(answer.bytes.data(), &length);
    answer.bytes.resize(answer.result == SCARD_S_SUCCESS ? length : 0);
    return answer;
  }

  SCARDCONTEXT context_ = 0;
  SCARDHANDLE card_ = 0;
  DWORD protocol_ = 0;
};

inline const Bytes kSelect{0x00, 0xA4, 0x04, 0x00, 0x01, 0xA0};
inline const Bytes kSelectAnswer{0x00, 0xA4, 0x04, 0x00, 0x01, 0xA0, 0x90, 0x00};

// Each test starts pcscd itself.
class PcscdTest : public testing::Test {
 protected:
  void SetUp() override {
    // pcscd's socket and configuration have fixed places, which a test may only change for itself:
    // with mounts of its own, or not at all.
    const std::string reason = whyNoMounts();
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
  ~PcscdTest() override {
    client_.reset();
    if (pcscd_.running()) pcscd_.end(SIGTERM);
    if (HasFailure()) std::cout << "--- pcscd\n" << pcscd_.log() << PrivatePcscd::driverLog();
  }

  void start(const PrivatePcscd::Options& options = {}) {
    ASSERT_TRUE(pcscd_.start(options));
    client_.emplace();
  }
  // With a card in.
  void startWithCard() {
    start();
    agent_.setCardIn();
    ASSERT_TRUE(agent_.connect());
    ASSERT_TRUE(client_->waitForCard().has_value());
  }
  // With a client connected to it, too.
  void startConnected() {
    startWithCard();
    ASSERT_EQ(client_->connect(), SCARD_S_SUCCESS);
  }
  void expectUsable() { EXPECT_EQ(client_->transmit(kSelect).bytes, kSelectAnswer); }
  // The signal must end it, soon and not by a crash. (Its exit code is 1 for an interrupt, with
  // any handler.)
  void expectPromptEnd(int signal, std::chrono::seconds bound = std::chrono::seconds(10)) {
    const std::optional<PrivatePcscd::End> end = pcscd_.end(signal);
    ASSERT_TRUE(end.has_value()) << "pcscd did not end";
    EXPECT_EQ(end->signal, 0) << "pcscd died";
    EXPECT_LT(end->took, bound);
  }

  const ScopedVariable module_{"ZELTA_MODULE", ZELTA_VSC_MODULE};
  PrivatePcscd pcscd_{ZELTA_HANDLER};
  std::optional<Client> client_;
  CardAgent agent_;
};

}  // namespace zelta::test
