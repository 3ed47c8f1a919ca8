#include "tests/reader/reader_fixture.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kInvalidDeviceState = 0xC0000184;

const Bytes kT0Atr{0x3B, 0x00};
const Bytes kT1Atr{0x3B, 0x80, 0x01};
const Bytes kBothAtr{0x3B, 0x80, 0x80, 0x01};

class SetProtocol : public ReaderFixture {
 protected:
  Answer select(std::uint32_t mask) { return ask(&Reader::IoSmartCardSetProtocol, number(mask)); }
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
  const Answer answer = select(row.mask);
  char first[64];
  (void)std::snprintf(first, sizeof first, "[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:%08X", row.mask);
  EXPECT_EQ(reader_.resetFlags, std::vector<bool>{true});
  if (row.protocol == 0) {
    EXPECT_EQ(answer, refused(kNotSupported));
    EXPECT_EQ(reader_.state(), 5u);
    EXPECT_EQ(reader_.currentProtocol(), before);
    EXPECT_EQ(reader_.notifications, 0);
    EXPECT_THAT(log_.records(), ElementsAre(info(first), error(50, "[SPRT]ERROR_NOT_SUPPORTED")));
  } else {
    EXPECT_EQ(answer, answered({}));
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
                    ChoiceRow{kBothAtr, 0x7FFFFFFC, 0}),
    [](const auto& each) {
      return "Atr" + toHex(each.param.atr) + "Mask" + toHex(number(each.param.mask));
    });

TEST_F(SetProtocol, WithoutAnAtrIsNoMedia) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    insert(kBothAtr);
    reader_.atrResult = result;
    EXPECT_EQ(select(3), refused(kNoMedia));
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
  EXPECT_EQ(select(2), refused(kNotSupported));
  EXPECT_EQ(select(1), answered({}));
}

TEST_F(SetProtocol, NotifiesAfterCompletionWithTheDeviceLockFree) {
  insert(kT0Atr);
  FakeRequest request(device_);
  request.withInput(1u);
  bool completedBefore = false;
  reader_.onNotify = [&] {
    completedBefore = request.completed();
    EXPECT_FALSE(device_.lockIsHeld());
  };
  reader_.notifyResult = false;  // ignored
  run(&Reader::IoSmartCardSetProtocol, request);
  EXPECT_TRUE(completedBefore);
  EXPECT_EQ(request.status(), 0u);
}

TEST_F(SetProtocol, NotificationThatThrows_IsLogged) {
  insert(kT0Atr);
  reader_.onNotify = [] { throw std::runtime_error("no pipe"); };
  EXPECT_EQ(select(1), answered({}));
  EXPECT_THAT(log_.errors(), ElementsAre(error(kNoError, "[SPRT]NotifyCardReady failed: no pipe")));
}

TEST_F(SetProtocol, QueryThatThrows_LeavesTheRequestToTheCaller) {
  insert(kT0Atr);
  reader_.onQueryAtr = [] { throw std::bad_alloc(); };
  FakeRequest request(device_);
  request.withInput(1u);
  EXPECT_THROW(run(&Reader::IoSmartCardSetProtocol, request), std::bad_alloc);
  EXPECT_FALSE(request.completed());
}

TEST_F(SetProtocol, WithoutInputMemory_TakesEveryProtocol) {
  insert(kBothAtr);
  EXPECT_EQ(ask(&Reader::IoSmartCardSetProtocol, std::nullopt), answered({}));
  EXPECT_EQ(reader_.currentProtocol(), 2u);
  EXPECT_THAT(log_.records(), ElementsAre(error(kNoError, "GetInputMemory failed"),
                                          info("[SPRT]IOCTL_SMARTCARD_SET_PROTOCOL:FFFFFFFF"),
                                          info("PROTOCOL SET: T1")));
}

class Transmit : public ReaderFixture {
 protected:
  Answer transmit(const std::optional<Bytes>& input, std::size_t capacity = 300) {
    return ask(&Reader::IoSmartCardTransmit, input, capacity);
  }

  // A card whose protocol was selected.
  void insertSelected(const Bytes& atr, std::uint32_t mask) {
    insert(atr);
    ASSERT_EQ(ask(&Reader::IoSmartCardSetProtocol, number(mask)), answered({}));
  }

  static Bytes withHeader(std::uint32_t protocol, const Bytes& apdu, std::uint32_t length = 8) {
    return number(protocol, number(length, apdu));
  }

  void expectLogged(const std::string& text) {
    EXPECT_EQ(log_.records().front(), begin_);
    EXPECT_THAT(log_.errors(), ElementsAre(error(kInvalidDeviceState, text)));
    EXPECT_THAT(reader_.commands, IsEmpty());
  }

  const LogRecord begin_ = info("[TRSM]IOCTL_SMARTCARD_TRANSMIT");
};

TEST_F(Transmit, PassesTheApduAndPutsAHeaderBeforeTheResponse) {
  insertSelected(kT1Atr, 2);
  reader_.transmitResponse = {0x6F, 0x01, 0x90, 0x00};
  EXPECT_EQ(transmit(withHeader(2, {0x00, 0xA4, 0x04, 0x00})),
            answered(withHeader(2, reader_.transmitResponse)));
  EXPECT_EQ(reader_.commands, (std::vector<Bytes>{{0x00, 0xA4, 0x04, 0x00}}));
  EXPECT_THAT(log_.records(), ElementsAre(begin_));
}

TEST_F(Transmit, HeaderAlone_SendsAnEmptyApdu) {
  insertSelected(kT0Atr, 1);
  reader_.transmitResponse = {0x69, 0x01};
  EXPECT_EQ(transmit(withHeader(1, {})), answered(withHeader(1, {0x69, 0x01})));
  EXPECT_EQ(reader_.commands, std::vector<Bytes>{Bytes{}});
}

TEST_F(Transmit, DoesNotConsultTheHeaderLength) {
  insertSelected(kT0Atr, 1);
  for (const std::uint32_t length : {0u, 7u, 12u, 255u}) {
    reader_.commands.clear();
    EXPECT_EQ(transmit(withHeader(1, {0x01, 0x02}, length)).status, 0u);
    EXPECT_EQ(reader_.commands, (std::vector<Bytes>{{0x01, 0x02}}));
  }
}

TEST_F(Transmit, BeforeSetProtocol_MustCarryTheProtocolAsTheAtrParserStoredIt) {
  insert(kT1Atr);
  EXPECT_EQ(transmit(withHeader(2, {0x00})).status, kInvalidDeviceState);
  EXPECT_EQ(transmit(withHeader(1, {0x00})).status, 0u);
}

TEST_F(Transmit, OfAnotherProtocol_IsAnInvalidDeviceState) {
  insertSelected(kT0Atr, 1);
  EXPECT_EQ(transmit(withHeader(0x80000002, {0x00})), refused(kInvalidDeviceState));
  expectLogged("[TRSM]STATUS_INVALID_DEVICE_STATE; protocol:80000002");
}

TEST_F(Transmit, ShorterThanTheHeader_IsAnInvalidDeviceState) {
  constexpr char kText[] = "[TRSM]STATUS_INVALID_DEVICE_STATE; failed to get request data";
  for (std::size_t size = 0; size < 8; ++size) {
    EXPECT_EQ(transmit(Bytes(size, 0)), refused(kInvalidDeviceState));
    expectLogged(kText);
  }
  EXPECT_EQ(transmit(std::nullopt), refused(kInvalidDeviceState));
  EXPECT_THAT(log_.records(), ElementsAre(begin_, error(kNoError, "GetInputMemory failed"),
                                          error(kInvalidDeviceState, kText)));
}

TEST_F(Transmit, ThatTheAgentDoesNotAnswer_IsNoMedia) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    reader_.transmitResult = result;
    EXPECT_EQ(transmit(withHeader(0, {0x00})), refused(kNoMedia));
    EXPECT_THAT(log_.records(), ElementsAre(begin_, error(kNoMedia, "[TRSM]STATUS_NO_MEDIA")));
  }
}

TEST_F(Transmit, HasNoLengthLimit) {
  reader_.transmitResponse = Bytes(70000, 0x5A);
  const Bytes command(66000, 0xA5);
  EXPECT_EQ(transmit(withHeader(0, command), 80000),
            answered(withHeader(0, reader_.transmitResponse)));
  EXPECT_EQ(reader_.commands, std::vector<Bytes>{command});
}

}  // namespace
}  // namespace zelta::test
