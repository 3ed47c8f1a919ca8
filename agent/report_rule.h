// Decides which arrivals and departures of a card are reported to the driver on one connection.
//
// Each is reported once. The driver asks for the ATR right after it has accepted a connection, and
// an insertion event behind that answer would reset a card that is in use already. So before the
// driver's first command has been dealt with, an arrival is kept back:
//
//   connection \ what happens   arrival   ATR answered   command ended   grace over   departure
//   Quiet, no command yet       keep      -              -               report       forget
//   First command running       keep      learned        report          -            see below
//   Settled                     report    (known)        nothing         -            see below
//
// A card that was reported or learned through an ATR answer is known to the driver; the departure
// of a known card is reported, that of an unknown one is not. "Report" applies to an unknown card
// only. Grace over settles the connection.
//
// A pure state machine of one connection: no threads, no clock.
#pragma once

#include <cstdint>

namespace zelta::agent {

// Tells one insertion from the next; 0 is no card.
using CardId = std::uint64_t;
inline constexpr CardId kNoCard = 0;

class ReportRule {
 public:
  enum class Report { Nothing, Inserted, Removed };

  // A connection begins while `card` is in.
  explicit ReportRule(CardId card) : card_(card) {}

  Report arrived(CardId card);
  Report departed();

  // The driver sent a command.
  void commandBegan();
  // The command is about to be answered with the ATR of `card`. False where that card is not in any
  // more: it must not be answered so, and nothing is learned.
  bool answeringAtr(CardId card);
  // The command has been dealt with, whatever the answer.
  Report commandEnded();

  // The driver has sent no command for the time of grace. Nothing where it has sent one.
  Report graceOver();
  // Whether the time of grace still matters.
  bool quiet() const { return stage_ == Stage::Quiet; }

 private:
  enum class Stage { Quiet, FirstCommand, Settled };

  Report reportUnknown();

  Stage stage_ = Stage::Quiet;
  CardId card_;
  bool known_ = false;  // to the driver; false without a card
};

}  // namespace zelta::agent
