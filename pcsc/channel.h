// One reader as pcscd uses it: each call becomes one I/O control of the driver, or is answered
// without the driver. A command takes at most three: if the driver refuses it because its current
// protocol differs, the handler asks for that, once, and sends the command again, once.
//
// A card that was removed, an agent that was lost, a request that the driver answers with "no
// media" and a device that is down are all IFD_ICC_NOT_PRESENT. A call whose card left while it ran
// returns that, whatever the driver answered. The driver limits a call's time: five seconds for an
// exchange with the agent, and at most as long again until it gets its turn. Choosing a protocol
// takes a second turn, in which the agent is told that its card is ready.
//
// A card whose ATR is invalid (atr.h) counts as mute, and the log says so.
//
// If a card that has answered before no longer does (the driver finds no media, a power-up or
// reset fails), pcscd is made to see it leave and enter once more, its only way back to a usable
// card. A card that has not answered since it entered is left in; pcscd keeps it as mute
// and powers it up again with the next connect.
//
// The driver reads the card's protocols when the card enters, and not again: if that failed, it
// refuses the card's protocols while the card is in. A protocol that is refused although the card
// offers it is asked for again, and if that does not help the reader is brought up anew.
//
// Threads: any, several at once; pcscd makes all calls but `awaitChange`, `stopAwaiting` and
// `setAttribute` one at a time.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "host/driver_host.h"
#include "pcsc/card_presence.h"
#include "pcsc/ifd_api.h"
#include "pcsc/log.h"
#include "pcsc/presence_watch.h"
#include "pcsc/reader_file.h"

namespace zelta::pcsc {

struct Reply {
  RESPONSECODE code = IFD_COMMUNICATION_ERROR;
  Bytes bytes;  // only with IFD_SUCCESS
};

// A command from pcscd, with the place for its answer.
struct Apdu {
  DWORD protocol = 0;  // 0 for T=0, 1 for T=1, 4 for raw
  host::ConstBytes bytes;
  host::MutableBytes answer;
};

struct TransmitReply {
  RESPONSECODE code = IFD_COMMUNICATION_ERROR;
  std::size_t answerSize = 0;  // bytes; only with IFD_SUCCESS
};

class Channel {
 public:
  // Begins to watch for the card at once.
  Channel(std::string name, std::shared_ptr<host::File> file, ReaderFile::Renew renew, Log log);
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // IFD_SUCCESS or IFD_ICC_NOT_PRESENT, at once.
  [[nodiscard]] RESPONSECODE checkPresence();
  // IFD_POWER_UP, IFD_POWER_DOWN or IFD_RESET; the reply is the answer to reset, if any.
  Reply power(DWORD action);
  // SCARD_PROTOCOL_T0 or SCARD_PROTOCOL_T1.
  [[nodiscard]] RESPONSECODE setProtocol(DWORD protocol);
  TransmitReply transmit(const Apdu& command);
  // Any attribute; numbers are 4 bytes, texts come without a terminating zero.
  Reply attribute(DWORD tag);
  [[nodiscard]] RESPONSECODE setAttribute(DWORD tag, const Bytes& value);

  void awaitChange(std::chrono::milliseconds limit) { presence_->awaitChange(limit); }
  // Blocks until a card is there or `close`; false if neither happens by `deadline`.
  [[nodiscard]] bool awaitCard(CardPresence::Clock::time_point deadline) {
    return presence_->awaitCard(deadline);
  }
  void stopAwaiting() { presence_->stopAwaiting(); }
  // Call before destruction: ends `awaitChange` and `awaitCard` for good, shows no card any more
  // and lets the watch for it end.
  void close();

 private:
  // The state of the current card, since it first answered.
  struct Session {
    CardNumber card = kNoCard;
    Bytes atr;  // of the latest power-up or reset; empty if that failed
    // The driver's current protocol, as far as known: 0 after a power-up, then the chosen mask.
    std::uint32_t protocol = 0;
  };

  // The result of a command that was sent under a protocol.
  struct Exchange {
    std::uint32_t protocol = 0;
    host::IoStatus end;
    std::array<std::uint8_t, kTransmitHeaderSize> answerHeader{};
  };

  host::IoResult control(std::uint32_t code, const Bytes& input, std::size_t outputCapacity);
  // Call within a use of `card`. "No media" and no output also if that card has left, before or
  // meanwhile.
  host::IoResult controlCard(CardNumber card, std::uint32_t code, const Bytes& input,
                             std::size_t outputCapacity);
  // Sends a command in the same way, with the answer's header apart.
  Exchange transmitToCard(CardNumber card, const Apdu& command, std::uint32_t protocol);
  [[nodiscard]] framework::HRESULT selectProtocol(CardNumber card, std::uint32_t mask);
  Reply powerDown(CardNumber card);
  Reply reset(CardNumber card, std::uint32_t operation);
  Reply resetFailed(CardNumber card, framework::HRESULT status);
  // Sends the command under the driver's current protocol, whichever that is.
  Exchange exchange(CardNumber card, const Apdu& command);
  // The driver's protocol if it differs from `known`; none if it does not or cannot be asked.
  std::optional<std::uint32_t> otherProtocol(CardNumber card, std::uint32_t known);
  [[nodiscard]] RESPONSECODE checkAnswer(const Exchange& exchange, std::size_t capacity);
  Reply atr();
  // Logs bytes that are not an ATR.
  bool isAtr(const host::IoResult& result) const;

  // Answers a call that needs a card and has none.
  [[nodiscard]] RESPONSECODE refuse();
  void reinsert(CardNumber card);
  // The card's state: false, no bytes, 0 if it has not answered yet.
  bool hasAnswered(CardNumber card) const ZELTA_EXCLUDES(mutex_);
  Bytes atrOf(CardNumber card) const ZELTA_EXCLUDES(mutex_);
  std::uint32_t protocolOf(CardNumber card) const ZELTA_EXCLUDES(mutex_);
  // Does nothing if `card` has not answered yet.
  void noteProtocol(CardNumber card, std::uint32_t protocol) ZELTA_EXCLUDES(mutex_);

  ReaderFile reader_;
  const Log log_;
  const std::shared_ptr<CardPresence> presence_;
  mutable platform::Mutex mutex_;
  Session session_ ZELTA_GUARDED_BY(mutex_);
  PresenceWatch watch_;  // last: destroyed before the members that it uses
};

}  // namespace zelta::pcsc
