// A connection's reports to the driver of its session and of the card, byte by byte.
#include "agent/link/event_reporter.h"

#include "tests/agent/link/connection_fixture.h"

namespace zelta::agent {
namespace {

using std::chrono::milliseconds;

class ConnectionEvents : public Connection {
 protected:
  using Connection::Connection;

  // Returns while the command's answer is still being written.
  void swapDuringTheAnswerTo(const Bytes& command) {
    commands_.holdWrites();
    commands_.give(command);
    commands_.waitUntilWriting();
    EXPECT_EQ(slot_.remove(), "");
    EXPECT_EQ(slot_.insert(), "");
  }
  void expectSwap(std::size_t first) {
    EXPECT_EQ(event(first), kRemoved);
    EXPECT_EQ(event(first + 1), kInserted);
  }
};

TEST_F(ConnectionEvents, SessionId_ComesFirstWithEachFieldAsOneWrite) {
  const std::string id = test::kSession;
  const std::vector<Bytes> expected = {{2, 0, 0, 0}, {36, 0, 0, 0}, Bytes(id.begin(), id.end())};
  EXPECT_EQ(events_.takeWrites(kSessionWrites), expected);
}

TEST_F(ConnectionEvents, RemovalDuringACommand_IsWrittenBeforeItsAnswerOfLengthZero) {
  EXPECT_EQ(answerTo(kAtrQuery), kAtrAnswer);
  events_.takeWrites(kSessionWrites);
  card_.hold();
  commands_.give(kTransmit);
  card_.waitUntilBusy();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(commands_.takeWrites(2).back(), kLengthZero);
  EXPECT_EQ(events_.writes(), kSessionWrites + 1);  // before the answer
  EXPECT_EQ(event(1), kRemoved);
}

TEST_F(ConnectionEvents, SwapWhileAnAnswerIsWritten_IsReportedAfterIt) {
  events_.takeWrites(kSessionWrites);
  swapDuringTheAnswerTo(kAtrQuery);
  EXPECT_EQ(events_.writes(), kSessionWrites);
  commands_.letWrites();
  EXPECT_EQ(commands_.takeWrites(1).back(), kAtrAnswer);
  expectSwap(1);  // the card itself was learned through its ATR
}

TEST_F(ConnectionEvents, CardThatComesAndGoesBeforeItsArrivalIsWritten_IsNotReported) {
  EXPECT_EQ(answerTo(kAtrQuery), kAtrAnswer);
  events_.takeWrites(kSessionWrites);
  events_.holdWrites();
  EXPECT_EQ(slot_.remove(), "");
  events_.waitUntilWriting();
  for (int swap = 0; swap < 3; ++swap) {
    EXPECT_EQ(slot_.insert(), "");
    EXPECT_EQ(slot_.remove(), "");
  }
  EXPECT_EQ(slot_.insert(), "");
  events_.letWrites();
  EXPECT_EQ(event(1), kRemoved);
  EXPECT_EQ(event(2), kInserted);
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(event(3), kRemoved);
}

// The driver may ask before it has read of the card's arrival.
TEST_F(ConnectionEvents, SwapOfACardWhoseAtrTheDriverHas_IsReportedThoughItsArrivalIsNotYet) {
  EXPECT_EQ(answerTo(kAtrQuery), kAtrAnswer);
  events_.takeWrites(kSessionWrites);
  events_.holdWrites();
  EXPECT_EQ(slot_.remove(), "");
  events_.waitUntilWriting();
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(answerTo(kAtrQueryWithoutReset, 1), kAtrAnswer);
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.insert(), "");
  events_.letWrites();
  EXPECT_EQ(event(1), kRemoved);
  EXPECT_EQ(event(2), kInserted);
  EXPECT_EQ(event(3), kRemoved);
  EXPECT_EQ(event(4), kInserted);
}

TEST_F(ConnectionEvents, FirstCommandThatDoesNotAskForTheAtr_ReportsTheCard) {
  commands_.give(kReady);
  EXPECT_EQ(event(1), kInserted);
}

// The next event is that of the second card, so nothing was reported for the first.
TEST_F(ConnectionEvents, CardThatTheDriverNeverKnew_IsNotReportedGone) {
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(answerTo(kAtrQuery), kLengthZero);
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(event(1), kInserted);
}

class EmptyConnection : public Connection {
 protected:
  EmptyConnection() : Connection({}, false) {}
};

TEST_F(EmptyConnection, ArrivalBeforeTheFirstCommand_IsLearnedByIt) {
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(answerTo(kAtrQuery), kAtrAnswer);
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(event(1), kRemoved);
}

TEST_F(EmptyConnection, ArrivalAfterTheFirstCommand_IsReportedAtOnce) {
  EXPECT_EQ(answerTo(kAtrQuery), kLengthZero);
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(event(1), kInserted);
  EXPECT_EQ(answerTo(kAtrQuery, 1), kAtrAnswer);
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(event(2), kRemoved);
}

// The log holds the writer, so only the thread that removes the card can have written.
TEST_F(ConnectionEvents, CardThatGoes_IsReportedBeforeTheRemovalReturns) {
  *reportsHeld_.lock() = true;
  commands_.give(kReady);
  lines_.waitFor("Card insertion reported");
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(events_.writes(), kSessionWrites + 2);
  *reportsHeld_.lock() = false;
  EXPECT_EQ(event(2), kRemoved);
  lines_.waitFor("Card removal reported");
}

// Commands are not logged, so they do not wait for the log.
class TerseConnection : public ConnectionEvents {
 protected:
  TerseConnection() : ConnectionEvents({test::kLong, test::kLong, test::kLong, Severity::kInfo}) {}

  void reportTheCardAndHoldItsLogLine() {
    *reportsHeld_.lock() = true;
    commands_.give(kReady);
    EXPECT_EQ(event(1), kInserted);
  }
};

TEST_F(ConnectionEvents, EventThatThePipeDoesNotTakeAtOnce_IsNotOvertaken) {
  events_.takeWrites(kSessionWrites);
  swapDuringTheAnswerTo(kAtrQuery);
  events_.refuseTries(1);
  commands_.letWrites();
  expectSwap(1);
}

TEST_F(TerseConnection, SwapDuringAnAnswer_IsWrittenAfterItThoughTheLogIsSlow) {
  reportTheCardAndHoldItsLogLine();
  swapDuringTheAnswerTo(kTransmit);
  EXPECT_EQ(events_.writes(), kSessionWrites + 1);
  commands_.letWrites();
  expectSwap(2);
  *reportsHeld_.lock() = false;
}

// The first of them is being handed over, the others wait for its line in the log.
TEST_F(TerseConnection, EventsThatThePipeDoesNotTakeAtOnce_KeepTheirOrder) {
  events_.refuseTries();
  reportTheCardAndHoldItsLogLine();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(events_.writes(), kSessionWrites + 1);
  *reportsHeld_.lock() = false;
  expectSwap(2);
}

TEST_F(TerseConnection, RemovalThatWaits_IsWrittenBeforeTheNextCommandIsAnswered) {
  events_.refuseTries();
  reportTheCardAndHoldItsLogLine();
  EXPECT_EQ(slot_.remove(), "");
  commands_.give(kAtrQuery);
  std::this_thread::sleep_for(milliseconds(20));  // time for an early answer
  EXPECT_EQ(commands_.writes(), 0u);
  *reportsHeld_.lock() = false;
  EXPECT_EQ(commands_.takeWrites(1).back(), kLengthZero);
  EXPECT_EQ(events_.writes(), kSessionWrites + 2);
}

class GracelessConnection : public Connection {
 protected:
  GracelessConnection() : Connection({test::kLong, test::kLong, milliseconds(0)}) {}
};

TEST_F(GracelessConnection, NoCommandInTheTimeOfGrace_ReportsTheCard) {
  EXPECT_EQ(event(1), kInserted);
}

}  // namespace
}  // namespace zelta::agent
