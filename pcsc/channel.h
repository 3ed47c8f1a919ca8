// One reader as pcscd works with it: each call becomes one I/O control of the driver, or is
// answered from what the handler knows already. A command takes at most three: where the driver
// refuses it because it has another current protocol, it is asked for that, once, and the command
// is sent again, once.
//
// A card that was removed, an agent that was lost and a request that the driver answers with "no
// media" are all IFD_ICC_NOT_PRESENT. A call that works with the card returns that the moment the
// card leaves, and nothing that the driver still says to it; card_presence.h has what becomes of
// the request.
//
// Where a card that has answered before no longer does (the driver finds no media, a power-up or
// reset fails), pcscd is made to see it leave and enter once more: it has no other way back to a
// usable card. A card that has not answered since it entered is not cycled; pcscd keeps it as mute
// and powers it up again with the next connect.
//
// Threads: any, several at once; pcscd makes all calls but `awaitChange`, `stopAwaiting` and
// `setAttribute` one at a time. Locks: the session's mutex is a leaf and never held while the
// driver works.
#pragma once

#include <cstdint>
#include <memory>

#include "host/driver_host.h"
#include "pcsc/card_presence.h"
#include "pcsc/driver_io.h"
#include "pcsc/ifd_api.h"
#include "pcsc/log.h"
#include "pcsc/presence_watch.h"

namespace zelta::pcsc {

struct Reply {
  RESPONSECODE code = IFD_COMMUNICATION_ERROR;
  Bytes bytes;  // only with IFD_SUCCESS
};

// A command as pcscd hands it over.
struct Apdu {
  DWORD protocol = 0;  // 0 for T=0, 1 for T=1, 4 for raw
  Bytes bytes;
  std::size_t answerCapacity = 0;  // bytes
};

class Channel {
 public:
  // The time for one I/O control. The driver ends every exchange with the agent after 5 seconds;
  // a few of them may be made one after the other.
  static constexpr std::chrono::milliseconds kControlLimit{40000};

  // Begins to watch for the card at once.
  Channel(std::shared_ptr<host::File> file, Log log,
          std::chrono::milliseconds controlLimit = kControlLimit);
  // Waits, no longer than for one I/O control, until the driver is done with the abandoned ones.
  ~Channel();
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // IFD_SUCCESS or IFD_ICC_NOT_PRESENT, at once.
  RESPONSECODE presence();
  // IFD_POWER_UP, IFD_POWER_DOWN or IFD_RESET; the reply is the answer to reset, if any.
  Reply power(DWORD action);
  // SCARD_PROTOCOL_T0 or SCARD_PROTOCOL_T1.
  RESPONSECODE setProtocol(DWORD protocol);
  Reply transmit(const Apdu& command);
  // Any attribute; numbers are 4 bytes, texts come without a terminating zero.
  Reply attribute(DWORD tag);
  RESPONSECODE setAttribute(DWORD tag, const Bytes& value);

  void awaitChange(std::chrono::milliseconds limit) { presence_->awaitChange(limit); }
  void stopAwaiting() { presence_->stopAwaiting(); }
  // Before the end: releases `awaitChange` for good and lets the watch for the card end.
  void close();

 private:
  // What is known of the card that is in, since it first answered.
  struct Session {
    CardNumber card = kNoCard;
    Bytes atr;  // of the latest power-up or reset; empty where that failed
    // The driver's current protocol, as far as is known: 0 after a power-up, then the mask that
    // was chosen.
    std::uint32_t protocol = 0;
  };

  host::IoResult control(std::uint32_t code, const Bytes& input, std::size_t outputCapacity);
  // Within a use of `card`. "No media", and no output, also where that card has left, before or
  // meanwhile; the request may still be in the driver then.
  host::IoResult controlCard(CardNumber card, std::uint32_t code, const Bytes& input,
                             std::size_t outputCapacity);
  std::shared_ptr<host::IoOperation> submit(std::uint32_t code, const Bytes& input,
                                            std::size_t outputCapacity,
                                            const std::shared_ptr<CardPresence::Request>& request);
  Reply powerDown(CardNumber card);
  Reply reset(CardNumber card, std::uint32_t operation);
  Reply resetFailed(CardNumber card, const host::IoResult& result);
  // Sends the command with the driver's current protocol, whichever that is; `protocol` says.
  host::IoResult exchange(CardNumber card, const Apdu& command, std::uint32_t* protocol);
  Reply checkAnswer(std::uint32_t protocol, host::IoResult result);
  Reply atr();

  // The answer to a call that needs a card and has none.
  RESPONSECODE refusal();
  void cycle(CardNumber card);
  // Of `card`; an empty one where that card has not answered yet.
  Session sessionOf(CardNumber card) const ZELTA_EXCLUDES(mutex_);
  // Nothing where `card` has not answered yet.
  void noteProtocol(CardNumber card, std::uint32_t protocol) ZELTA_EXCLUDES(mutex_);

  const std::shared_ptr<host::File> file_;
  const Log log_;
  const std::chrono::milliseconds controlLimit_;
  const std::shared_ptr<CardPresence> presence_;
  mutable platform::Mutex mutex_;
  Session session_ ZELTA_GUARDED_BY(mutex_);
  PresenceWatch watch_;  // the last: it is gone before what it works on
};

}  // namespace zelta::pcsc
