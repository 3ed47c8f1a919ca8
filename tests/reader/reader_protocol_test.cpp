#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/reader/scripted_reader.h"
#include "tests/support/log_capture.h"

namespace zelta {
namespace {

using test::error;
using test::FakeReaderDevice;
using test::FakeRequest;
using test::info;
using test::LogCapture;
using test::ScriptedReader;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kNoMedia = 0xC0000178;
constexpr std::uint32_t kInvalidDeviceState = 0xC0000184;
constexpr auto kNoCode = static_cast<std::uint32_t>(-500);

const Bytes kT0Atr{0x3B, 0x00};
const Bytes kT1Atr{0x3B, 0x80, 0x01};
const Bytes kBothAtr{0x3B, 0x80, 0x80, 0x01};

class SetProtocol : public testing::Test {
 protected:
  // Lets the reader read the ATR as an inserted card makes it do.
  void insert(const Bytes& atr) {
    reader_.atr = atr;
    ASSERT_TRUE(reader_.initializeProtocols());
    reader_.setState(SCARD_SWALLOWED);
    reader_.resetFlags.clear();
    log_.clear();
  }

  std::uint32_t select(std::uint32_t mask) {
    FakeRequest request(device_);
    request.withInput(mask).withOutput(4).checkingLock();
    reader_.IoSmartCardSetProtocol(&request, 4, 4);
    EXPECT_EQ(request.information(), 0u);
    EXPECT_FALSE(request.outputWritten());
    return request.status();
  }

  LogCapture log_;
  FakeReaderDevice device_;
  ScriptedReader reader_{device_};
};

struct ChoiceRow {
  const Bytes& atr;
  std::uint32_t mask;
  std::uint32_t protocol;  // 0: refused
};

class Choice : public SetProtocol, public testing::WithParamInterface<ChoiceRow> {};

TEST_P(Choice, PrefersT1AndRefusesWhatIsNotOffered) {
  const ChoiceRow& row = GetParam();
  insert(row.atr);
  const std::uint32_t before = reader_.currentProtocol();
  const std::uint32_t status = select(row.mask);
  char first[64];
  std::snprintf(first, sizeof first, "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:%08X", row.mask);
  EXPECT_EQ(reader_.resetFlags, std::vector<bool>{true});
  if (row.protocol == 0) {
    EXPECT_EQ(status, 0x80070032u);
    EXPECT_EQ(reader_.state(), 5u);
    EXPECT_EQ(reader_.currentProtocol(), before);
    EXPECT_EQ(reader_.notifications, 0);
    EXPECT_THAT(log_.records(), ElementsAre(info(first), error(50, "[SPRT]ERROR_NOT_SUPPORTED")));
  } else {
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(reader_.state(), 6u);
    EXPECT_EQ(reader_.currentProtocol(), row.protocol);
    EXPECT_EQ(reader_.notifications, 1);
    EXPECT_THAT(log_.records(),
                ElementsAre(info(first),
                            info(row.protocol == 2 ? "PROTOCOL SET: T1" : "PROTOCOL SET: T0")));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Masks, Choice,
    testing::Values(ChoiceRow{kBothAtr, 3, 2}, ChoiceRow{kBothAtr, 2, 2}, ChoiceRow{kBothAtr, 1, 1},
                    ChoiceRow{kT1Atr, 1, 0}, ChoiceRow{kT1Atr, 3, 2}, ChoiceRow{kT0Atr, 2, 0},
                    ChoiceRow{kT0Atr, 3, 1}, ChoiceRow{kT0Atr, 0x80000000, 1},
                    ChoiceRow{kT1Atr, 0x80000000, 2}, ChoiceRow{kBothAtr, 0x80000000, 2},
                    // An explicit T=0 comes before the default's T=1.
                    ChoiceRow{kBothAtr, 0x80000001, 1}, ChoiceRow{kT1Atr, 0x80000001, 2},
                    ChoiceRow{kT0Atr, 0x80000002, 1}, ChoiceRow{kBothAtr, 0, 0},
                    ChoiceRow{kBothAtr, 0x7FFFFFFC, 0}));

TEST_F(SetProtocol, WithoutAnAtrIsNoMedia) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    insert(kBothAtr);
    reader_.atrResult = result;
    EXPECT_EQ(select(3), kNoMedia);
    EXPECT_EQ(reader_.state(), 1u);
    EXPECT_EQ(reader_.notifications, 0);
    EXPECT_THAT(log_.records(), ElementsAre(info("[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:00000003"),
                                            error(kNoMedia, "[SPRT]STATUS_NO_MEDIA")));
    reader_.atrResult = QueryResult::kSuccess;
  }
}

TEST_F(SetProtocol, DoesNotParseTheAtrThatItAsksFor) {
  insert(kT0Atr);
  reader_.atr = kT1Atr;
  EXPECT_EQ(select(2), 0x80070032u);
  EXPECT_EQ(select(1), 0u);
}

TEST_F(SetProtocol, NotifiesAfterCompletionWithTheDeviceLockFree) {
  insert(kT0Atr);
  FakeRequest request(device_);
  request.withInput(1u);
  bool completedBefore = false;
  bool lockFree = false;
  reader_.onNotify = [&] {
    completedBefore = request.completed();
    lockFree = !device_.lockIsHeld();
  };
  reader_.notifyResult = false;  // ignored
  reader_.IoSmartCardSetProtocol(&request, 4, 0);
  EXPECT_TRUE(completedBefore);
  EXPECT_TRUE(lockFree);
  EXPECT_EQ(request.status(), 0u);
}

TEST_F(SetProtocol, NotificationThatThrowsIsLoggedAndStopsThere) {
  insert(kT0Atr);
  reader_.onNotify = [] { throw std::runtime_error("no pipe"); };
  EXPECT_EQ(select(1), 0u);
  EXPECT_THAT(log_.errors(), ElementsAre(error(kNoCode, "[SPRT]NotifyCardReady failed: no pipe")));
}

TEST_F(SetProtocol, QueryThatThrowsLeavesTheRequestToTheCaller) {
  insert(kT0Atr);
  reader_.onQueryAtr = [] { throw std::bad_alloc(); };
  FakeRequest request(device_);
  request.withInput(1u);
  EXPECT_THROW(reader_.IoSmartCardSetProtocol(&request, 4, 0), std::bad_alloc);
  EXPECT_FALSE(request.completed());
}

TEST_F(SetProtocol, WithoutInputMemoryTakesEveryProtocol) {
  insert(kBothAtr);
  FakeRequest request(device_);
  reader_.IoSmartCardSetProtocol(&request, 0, 0);
  EXPECT_EQ(request.status(), 0u);
  EXPECT_EQ(reader_.currentProtocol(), 2u);
  EXPECT_THAT(log_.records(), ElementsAre(error(kNoCode, "GetInputMemory failed"),
                                          info("[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:FFFFFFFF"),
                                          info("PROTOCOL SET: T1")));
}

class Transmit : public SetProtocol {
 protected:
  struct Answer {
    std::uint32_t status;
    std::size_t information;
    Bytes output;
  };

  Answer transmit(const Bytes& input, std::size_t capacity = 300) {
    FakeRequest request(device_);
    request.withInput(input).withOutput(capacity).checkingLock();
    reader_.IoSmartCardTransmit(&request, input.size(), capacity);
    Answer answer{request.status(), request.information().value_or(9999), request.output()};
    answer.output.resize(request.outputWritten() ? answer.information : 0);
    return answer;
  }

  static Bytes header(std::uint8_t protocol, std::uint8_t length = 8) {
    return {protocol, 0, 0, 0, length, 0, 0, 0};
  }

  static Bytes join(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
  }
};

TEST_F(Transmit, PassesTheApduAndPutsAHeaderBeforeTheResponse) {
  insert(kT1Atr);
  ASSERT_EQ(select(2), 0u);
  log_.clear();
  reader_.transmitResponse = {0x6F, 0x01, 0x90, 0x00};
  const Answer answer = transmit(join(header(2), {0x00, 0xA4, 0x04, 0x00}));
  EXPECT_EQ(answer.status, 0u);
  EXPECT_EQ(answer.information, 12u);
  EXPECT_EQ(answer.output, join(header(2), reader_.transmitResponse));
  EXPECT_EQ(reader_.commands, (std::vector<Bytes>{{0x00, 0xA4, 0x04, 0x00}}));
  EXPECT_THAT(log_.records(), ElementsAre(info("[TRSM]IOCTL_SMARTCARD_TRANSMIT")));
}

TEST_F(Transmit, OfAHeaderAloneSendsAnEmptyApdu) {
  insert(kT0Atr);
  ASSERT_EQ(select(1), 0u);
  reader_.transmitResponse = {0x69, 0x01};
  const Answer answer = transmit(header(1));
  EXPECT_EQ(answer.status, 0u);
  EXPECT_EQ(answer.output, join(header(1), {0x69, 0x01}));
  EXPECT_EQ(reader_.commands, std::vector<Bytes>{Bytes{}});
}

TEST_F(Transmit, DoesNotConsultTheHeaderLength) {
  insert(kT0Atr);
  ASSERT_EQ(select(1), 0u);
  for (const std::uint8_t length : {0, 7, 12, 255}) {
    reader_.commands.clear();
    EXPECT_EQ(transmit(join(header(1, length), {0x01, 0x02})).status, 0u);
    EXPECT_EQ(reader_.commands, (std::vector<Bytes>{{0x01, 0x02}}));
  }
}

TEST_F(Transmit, BeforeSetProtocolMustCarryTheProtocolAsTheAtrParserStoredIt) {
  insert(kT1Atr);
  EXPECT_EQ(transmit(join(header(2), {0x00})).status, kInvalidDeviceState);
  EXPECT_EQ(transmit(join(header(1), {0x00})).status, 0u);
}

TEST_F(Transmit, OfAnotherProtocolIsAnInvalidDeviceState) {
  insert(kT0Atr);
  ASSERT_EQ(select(1), 0u);
  log_.clear();
  const Answer answer = transmit(join({0x02, 0x00, 0x00, 0x80, 8, 0, 0, 0}, {0x00}));
  EXPECT_EQ(answer.status, kInvalidDeviceState);
  EXPECT_EQ(answer.information, 0u);
  EXPECT_THAT(reader_.commands, IsEmpty());
  EXPECT_THAT(log_.records(),
              ElementsAre(info("[TRSM]IOCTL_SMARTCARD_TRANSMIT"),
                          error(kInvalidDeviceState,
                                "[TRSM]STATUS_INVALID_DEVICE_STATE; protocol:80000002")));
}

TEST_F(Transmit, ShorterThanTheHeaderIsAnInvalidDeviceState) {
  for (std::size_t size = 0; size < 8; ++size) {
    log_.clear();
    const Answer answer = transmit(Bytes(size, 0));
    EXPECT_EQ(answer.status, kInvalidDeviceState);
    EXPECT_EQ(answer.information, 0u);
    EXPECT_THAT(
        log_.records(),
        ElementsAre(info("[TRSM]IOCTL_SMARTCARD_TRANSMIT"),
                    error(kInvalidDeviceState,
                          "[TRSM]STATUS_INVALID_DEVICE_STATE; failed to get request data")));
  }
  EXPECT_THAT(reader_.commands, IsEmpty());
}

TEST_F(Transmit, WithoutInputMemoryIsAnInvalidDeviceState) {
  FakeRequest request(device_);
  request.withOutput(10).checkingLock();
  reader_.IoSmartCardTransmit(&request, 0, 10);
  EXPECT_EQ(request.status(), kInvalidDeviceState);
  EXPECT_EQ(request.information(), 0u);
  EXPECT_THAT(
      log_.records(),
      ElementsAre(info("[TRSM]IOCTL_SMARTCARD_TRANSMIT"), error(kNoCode, "GetInputMemory failed"),
                  error(kInvalidDeviceState,
                        "[TRSM]STATUS_INVALID_DEVICE_STATE; failed to get request data")));
}

TEST_F(Transmit, ThatTheAgentDoesNotAnswerIsNoMedia) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    log_.clear();
    reader_.transmitResult = result;
    const Answer answer = transmit(join(header(0), {0x00}));
    EXPECT_EQ(answer.status, kNoMedia);
    EXPECT_EQ(answer.information, 0u);
    EXPECT_THAT(log_.records(), ElementsAre(info("[TRSM]IOCTL_SMARTCARD_TRANSMIT"),
                                            error(kNoMedia, "[TRSM]STATUS_NO_MEDIA")));
  }
}

TEST_F(Transmit, IntoTooSmallAnOutputSucceedsUnwritten) {
  reader_.transmitResponse = {0x90, 0x00};
  const Answer answer = transmit(header(0), 9);
  EXPECT_EQ(answer.status, 0u);
  EXPECT_EQ(answer.information, 10u);
  EXPECT_THAT(answer.output, IsEmpty());
}

TEST_F(Transmit, HasNoLengthLimit) {
  reader_.transmitResponse = Bytes(70000, 0x5A);
  const Bytes command(66000, 0xA5);
  const Answer answer = transmit(join(header(0), command), 80000);
  EXPECT_EQ(answer.status, 0u);
  EXPECT_EQ(answer.information, 70008u);
  EXPECT_EQ(answer.output, join(header(0), reader_.transmitResponse));
  EXPECT_EQ(reader_.commands, std::vector<Bytes>{command});
}

}  // namespace
}  // namespace zelta
