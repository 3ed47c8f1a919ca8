// Commands and answers byte by byte.
#include "agent/link/driver_connection.h"

#include <future>
#include <stdexcept>

#include "tests/agent/link/connection_fixture.h"

namespace zelta::agent {
namespace {

using std::chrono::milliseconds;
using test::MemoryPipe;

constexpr char kGivenUp[] = "error: The driver does not wait for its answer any more; dropping";

Bytes operator+(Bytes front, const Bytes& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

// One exchange: what the driver writes, and the agent's one write.
struct Exchange {
  const char* name;
  Bytes command;
  Bytes answer;
  enum class Card { kIn, kMute, kOut } card = Card::kIn;
  int resets = 0;
  int readyNotices = 0;
};

class Exchanges : public Connection, public testing::WithParamInterface<Exchange> {};

TEST_P(Exchanges, CommandGetsItsAnswerInOneWrite) {
  if (GetParam().card == Exchange::Card::kOut) {
    EXPECT_EQ(slot_.remove(), "");
  }
  card_.setMute(GetParam().card == Exchange::Card::kMute);
  EXPECT_EQ(answerTo(GetParam().command), GetParam().answer);
  EXPECT_EQ(card_.resets(), GetParam().resets);
  EXPECT_EQ(card_.readyNotices(), GetParam().readyNotices);
}

using Card = Exchange::Card;

INSTANTIATE_TEST_SUITE_P(
    Commands, Exchanges,
    testing::Values(
        Exchange{"AtrWithReset", kAtrQuery, kAtrAnswer, Card::kIn, 1},
        Exchange{"AtrWithoutReset", kAtrQueryWithoutReset, kAtrAnswer},
        Exchange{"Transmit", kTransmit, kTransmitAnswer},
        Exchange{"LongestApdu", Bytes{2, 0, 0, 0, 0x0C, 0x00, 0x01, 0x00} + Bytes(65548),
                 kTransmitAnswer},
        Exchange{"NotificationHasNoAnswer", kReady + kTransmit, kTransmitAnswer, Card::kIn, 0, 1},
        Exchange{"NoCardAtrWithReset", kAtrQuery, kLengthZero, Card::kOut},
        Exchange{"NoCardAtr", kAtrQueryWithoutReset, kLengthZero, Card::kOut},
        Exchange{"NoCardTransmit", kTransmit, kLengthZero, Card::kOut},
        Exchange{"MuteCardAtr", kAtrQuery, kLengthZero, Card::kMute},
        Exchange{"MuteCardTransmit", kTransmit, kLengthZero, Card::kMute}),
    [](const testing::TestParamInfo<Exchange>& tested) { return tested.param.name; });

TEST_F(Connection, CommandInSingleBytes_IsUnderstood) {
  for (const std::uint8_t byte : kTransmit) commands_.give({byte});
  EXPECT_EQ(commands_.takeWrites(1).back(), kTransmitAnswer);
}

TEST_F(Connection, CommandAfterCommand_GetsItsOwnAnswer) {
  EXPECT_EQ(answerTo(kTransmit), kTransmitAnswer);
  EXPECT_EQ(answerTo(kTransmit, 1), (Bytes{3, 0, 0, 0, 0x02, 0x90, 0x00}));
}

// An invalid command: it ends the connection without an answer.
struct Refused {
  const char* name;
  Bytes bytes;
  const char* line;
};

class RefusedCommands : public Connection, public testing::WithParamInterface<Refused> {
 protected:
  // The time that half a command waits for its rest.
  RefusedCommands() : Connection({milliseconds(50), test::kLong, test::kLong}) {}
};

TEST_P(RefusedCommands, EndTheConnectionUnanswered) {
  commands_.give(GetParam().bytes);
  expectEnd(GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, RefusedCommands,
    testing::Values(
        Refused{"UnknownCode", {4, 0, 0, 0}, "error: Unknown command 4; dropping the connection"},
        Refused{"EmptyApdu",
                {2, 0, 0, 0, 0, 0, 0, 0},
                "error: The driver announced an APDU of 0 bytes; dropping the connection"},
        Refused{"ApduOneByteTooLong",
                {2, 0, 0, 0, 0x0D, 0x00, 0x01, 0x00},
                "error: The driver announced an APDU of 65549 bytes; dropping the connection"},
        Refused{"ApduOf2GiB",
                {2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F},
                "error: The driver announced an APDU of 2147483647 bytes"},
        Refused{"ApduOf4GiB",
                {2, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF},
                "error: The driver announced an APDU of 4294967295 bytes"},
        Refused{"HalfACode", {0, 0}, "error: The driver's command stopped half-way"},
        Refused{"HalfAnApdu",
                {2, 0, 0, 0, 5, 0, 0, 0, 0x00, 0xA4},
                "error: The driver's command stopped half-way; dropping the connection"}),
    [](const testing::TestParamInfo<Refused>& tested) { return tested.param.name; });

// --- The card is late ---

class HastyConnection : public Connection {
 protected:
  HastyConnection() : Connection({milliseconds(50), test::kLong, test::kLong}) {}
};

TEST_F(HastyConnection, LateTransmit_IsAnswered6F00) {
  card_.hold();
  EXPECT_EQ(answerTo(kTransmit), (Bytes{2, 0, 0, 0, 0x6F, 0x00}));
  EXPECT_TRUE(lines_.has("warning: Transmit 00 (1 bytes): the card is not done in time"));
}

TEST_F(HastyConnection, LateAtr_IsAnsweredWithLengthZeroAndTheCardReported) {
  card_.hold();
  EXPECT_EQ(answerTo(kAtrQuery), kLengthZero);
  EXPECT_TRUE(lines_.has("warning: ATR query with reset: the card is not done in time"));
  EXPECT_EQ(event(1), kInserted);
}

// --- A driver that does not take what it gets ---

TEST_F(Connection, CommandAfterTheOneThatTheCardIsAt_EndsTheConnectionUnanswered) {
  card_.hold();
  commands_.give(kTransmit);
  card_.waitUntilBusy();
  commands_.give(kTransmit);
  card_.letGo();
  expectEnd(kGivenUp);
}

TEST_F(Connection, ByteBehindACommand_EndsTheConnectionUnanswered) {
  commands_.give(kTransmit + Bytes{2});
  expectEnd(kGivenUp);
}

TEST_F(Connection, CommandBeforeTheAnswerIsRead_TakesTheAnswerBack) {
  commands_.holdWrites();
  commands_.give(kAtrQuery);
  commands_.waitUntilWriting();
  commands_.give(kTransmit);
  expectEnd(kGivenUp);
}

class ImpatientConnection : public Connection {
 protected:
  ImpatientConnection() : Connection({test::kLong, milliseconds(50), test::kLong}) {}
};

TEST_F(ImpatientConnection, AnswerThatTheDriverDoesNotTake_EndsTheConnection) {
  commands_.holdWrites();
  card_.hold();
  commands_.give(kAtrQuery);
  card_.letGo();
  thread_.join();
  EXPECT_EQ(commands_.writes(), 0u);
  // On a loaded machine the answer may be too late to be begun.
  EXPECT_TRUE(lines_.has("error: The driver does not take its answer; dropping the connection") ||
              lines_.has("error: The answer comes too late for the driver"));
}

class OverdueConnection : public Connection {
 protected:
  OverdueConnection() : Connection({test::kLong, milliseconds(0), test::kLong}) {}
};

TEST_F(OverdueConnection, AnswerThatComesTooLate_IsNotWritten) {
  commands_.give(kAtrQuery);
  expectEnd("error: The answer comes too late for the driver; dropping the connection");
}

TEST_F(OverdueConnection, EventPipeThatStaysFull_EndsTheConnection) {
  events_.takeWrites(kSessionWrites);
  events_.holdWrites();
  commands_.give(kReady);  // after it the card that is in is reported
  expectEnd("error: The driver does not take its events; dropping the connection");
  EXPECT_EQ(events_.writes(), kSessionWrites);
}

// --- Lack of memory or of handles ---

class BrokenPipe : public MemoryPipe {
 public:
  IoResult awaitCommand() override { throw std::runtime_error("cannot read"); }
  IoResult post(const void*, std::uint32_t, std::optional<SteadyClock::time_point>) override {
    throw std::runtime_error("cannot post");
  }
};

class FailingConnection : public testing::Test {
 protected:
  FailingConnection()
      : log_(Severity::kDebug, lines_.sink()),
        slot_(card_, {}, test::failTest),
        threads_(slot_, test::kLong, tell_) {
    slot_.start();
    threads_.start();
  }
  ~FailingConnection() override { threads_.stop(); }

  // Serves until an exception is thrown.
  void serve(PipeConnection& commands, PipeConnection& events, const OnFailure& onFailure) {
    DriverConnection connection(
        commands, events, slot_, threads_,
        {{test::kSession, test::kLong, test::kLong}, test::kLong, test::kLong}, [] {}, onFailure,
        log_);
    connection.serve();
  }

  std::promise<std::string> told_;
  const OnFailure tell_ = [this](const char* problem) { told_.set_value(problem); };
  test::LogLines lines_;
  Log log_;
  test::HeldCard card_;
  CardSlot slot_;
  CommandThreads threads_;
};

TEST_F(FailingConnection, ExceptionOfACommandThread_IsToldAndLeavesNoObserver) {
  BrokenPipe commands;
  MemoryPipe events;
  serve(commands, events, test::failTest);
  EXPECT_EQ(told_.get_future().get(), "cannot read");
  EXPECT_EQ(slot_.remove(), "");  // its observer is gone
  EXPECT_EQ(slot_.insert(), "");
}

TEST_F(FailingConnection, ExceptionOfAnEventThread_IsTold) {
  MemoryPipe commands;
  BrokenPipe events;
  std::thread serving([&] { serve(commands, events, tell_); });
  EXPECT_EQ(told_.get_future().get(), "cannot post");
  commands.cancel();
  serving.join();
}

}  // namespace
}  // namespace zelta::agent
