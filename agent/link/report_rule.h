// Decides which arrivals and departures of a card are reported to the driver on one connection.
//
// Each is reported once. The driver asks for the ATR right after it has accepted a connection, and
// an insertion event after that answer would reset a card that is in use already. So until the
// driver's first command is answered, an arrival is kept back:
//
//   stage \ what happens      arrival   answer: its ATR   other answer   grace over   departure
//   Quiet, no command yet     keep      -                 -              report       see below
//   First command running     keep      learned           report         -            see below
//   Settled                   report    (known)           (known)        -            see below
//
// An answer settles, and so does the end of the time of grace. A card that was reported or learned
// through its ATR is known to the driver; the departure of a known card is reported, that of an
// unknown one is not. "Report" applies to an unknown card only.
//
// A pure state machine of one connection: no threads, no clock.
#pragma once

#include <cstdint>

namespace zelta::agent {

// Distinguishes one insertion from the next; 0 means no card.
using CardId = std::uint64_t;
inline constexpr CardId kNoCard = 0;

class ReportRule {
 public:
  enum class Report { kNothing, kInserted, kRemoved };

  // A connection begins while `card` is in.
  explicit ReportRule(CardId card) : card_(card) {}

  Report arrived(CardId card);
  Report departed();

  // The driver sent a command.
  void commandBegan();
  // Whether `card` is the one that is in, so that a command may be answered with its ATR.
  bool holds(CardId card) const { return card != kNoCard && card == card_; }
  // Call when a command's answer begins: with the ATR of the current card, or otherwise.
  Report answeredWithAtr();
  Report answeredOtherwise();

  // The time of grace is over. Does nothing if the driver has sent a command.
  Report graceOver();
  // Whether the time of grace still matters.
  bool quiet() const { return stage_ == Stage::kQuiet; }

 private:
  enum class Stage { kQuiet, kFirstCommand, kSettled };

  Report reportUnknown();

  Stage stage_ = Stage::kQuiet;
  CardId card_;
  bool known_ = false;  // to the driver; false without a card
};

}  // namespace zelta::agent
