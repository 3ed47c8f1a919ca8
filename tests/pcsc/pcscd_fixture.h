// The real pcscd with the handler and the driver module, a client of it and an agent.
#pragma once

#include <gtest/gtest.h>
#include <winscard.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "contract/bytes.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/private_pcscd.h"

namespace zelta::test {

inline constexpr char kReaderName[] = "Zelta Virtual SmartCard Reader 00 00";

// A connection of one application.
class Client {
 public:
  static constexpr DWORD kLimit = 60000;  // milliseconds

  Client();
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  std::vector<std::string> readers();

  // The reader's state: its bits, the number of insertions and removals, the answer to reset.
  struct State {
    bool present = false;
    bool mute = false;
    unsigned counter = 0;
    Bytes atr;
  };
  State state();
  // Waits until `wanted` is true of the state; none when that has not come about in time.
  template <typename Wanted>
  std::optional<State> waitFor(Wanted wanted) {
    DWORD known = SCARD_STATE_UNAWARE;
    for (;;) {
      const std::optional<State> now = change(&known);
      if (!now || wanted(*now)) return now;
    }
  }
  std::optional<State> waitForCard() {
    return waitFor([](const State& now) { return now.present; });
  }
  std::optional<State> waitForRemoval() {
    return waitFor([](const State& now) { return !now.present; });
  }

  LONG connect(DWORD share = SCARD_SHARE_SHARED, DWORD protocols = SCARD_PROTOCOL_ANY);
  LONG reconnect(DWORD initialization = SCARD_RESET_CARD);
  LONG disconnect(DWORD disposition = SCARD_LEAVE_CARD);
  DWORD protocol() const { return protocol_; }
  // The client's own buffer holds an extended answer.
  LONG transmit(const Bytes& command, Bytes* answer);
  LONG attribute(DWORD tag, Bytes* value);
  LONG control(DWORD code, Bytes* answer);

 private:
  // Waits for a state that differs from `known`, which it then is.
  std::optional<State> change(DWORD* known);

  SCARDCONTEXT context_ = 0;
  SCARDHANDLE card_ = 0;
  DWORD protocol_ = 0;
};

// Each test starts pcscd itself.
class PcscdTest : public testing::Test {
 protected:
  ~PcscdTest() override;

  void start(PrivatePcscd::Options options = {});
  // With a card in, a client connected to it.
  void startWithCard();
  // The signal must end it, soon and not by a crash. (Its exit code is 1 for an interrupt, with
  // any handler.)
  void expectPromptEnd(int signal);

  PrivatePcscd pcscd_{ZELTA_HANDLER};
  std::optional<Client> client_;
  CardAgent agent_;
};

}  // namespace zelta::test
