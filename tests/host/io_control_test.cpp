// What the driver sees of one I/O control, and what its caller gets back.
#include <array>

#include "tests/host/host_fixture.h"

namespace zelta::host {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class IoControlTest : public HostTest {
 protected:
  void SetUp() override { start(); }

  // What RetrieveFileName gives for a buffer of that many characters.
  std::vector<std::uint32_t> fileName(std::uint32_t capacity) {
    return toNumbers(control(fake::kFileName, numbers({capacity}), 2048).output);
  }
};

constexpr std::uint32_t kInsufficient = 0x8007007A;

TEST_F(IoControlTest, DriverIsToldCodeAndLengths) {
  const IoResult result = control(fake::kParameters, {1, 2, 3, 4, 5}, 12);
  EXPECT_THAT(toNumbers(result.output), ElementsAre(fake::kParameters, 5u, 12u));
}

TEST_F(IoControlTest, BufferOfLengthZeroHasNoMemoryObject) {
  EXPECT_EQ(control(fake::kMemoryShape, {}, 0).information, 0u);
  EXPECT_EQ(control(fake::kMemoryShape, {1}, 0).information, fake::kHasInput);
  EXPECT_EQ(control(fake::kMemoryShape, {}, 1).information, fake::kHasOutput);
  EXPECT_EQ(control(fake::kMemoryShape, {1}, 1).information, fake::kHasInput | fake::kHasOutput);
}

TEST_F(IoControlTest, ByteCountBeyondTheCapacityIsToldAndTheOutputIsCut) {
  const IoResult result = control(fake::kOverrun, {}, 10);
  EXPECT_EQ(result.information, 110u);
  EXPECT_EQ(result.output.size(), 10u);
}

// What was in the memory before is nobody's business.
TEST_F(IoControlTest, OutputThatTheDriverDidNotWriteIsZero) {
  const std::vector<std::uint8_t> before(60, 0x55);
  EXPECT_EQ(control(fake::kEcho, before, 64).output, before);
  EXPECT_THAT(control(fake::kOverrun, {}, 64).output, Each(0));
  EXPECT_EQ(control(fake::kEcho, before, 64).output, before);
  std::vector<std::uint8_t> written(64);
  written[40] = 0xAA;
  EXPECT_EQ(control(fake::kWriteAt, numbers({40}), 64).output, written);
  EXPECT_EQ(control(fake::kEcho, before, 64).output, before);
  EXPECT_EQ(control(fake::kReadOutput, {}, 64).information, 0u);
}

TEST_F(IoControlTest, BuffersInPartsAreFilledOneAfterTheOther) {
  const std::vector<std::uint8_t> header = {1, 2, 3};
  const std::vector<std::uint8_t> body = {4, 5, 6, 7};
  std::vector<std::uint8_t> outHeader(2, 0xEE);
  std::vector<std::uint8_t> outBody(10, 0xEE);
  const auto echo = [&](ConstBytes first, ConstBytes second) {
    return file_->controlInParts(
        fake::kEcho, {first, second},
        {{outHeader.data(), outHeader.size()}, {outBody.data(), outBody.size()}}, kLong);
  };
  const IoStatus whole = echo({header.data(), 3}, {body.data(), 4});
  EXPECT_EQ(whole.status, framework::kOk);
  EXPECT_EQ(whole.information, 7u);
  EXPECT_THAT(outHeader, ElementsAre(1, 2));
  EXPECT_THAT(outBody, ElementsAre(3, 4, 5, 6, 7, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE));
  EXPECT_EQ(echo({}, {body.data(), 1}).information, 1u);
  EXPECT_THAT(outHeader, ElementsAre(4, 2));
  EXPECT_EQ(outBody[0], 3);
}

TEST_F(IoControlTest, PartsThatAreTooLongTogetherAreCut) {
  std::array<std::uint8_t, 3> header{};
  std::array<std::uint8_t, 2> body{};
  const IoStatus end =
      file_->controlInParts(fake::kOverrun, {}, {{header.data(), 3}, {body.data(), 2}}, kLong);
  EXPECT_EQ(end.information, 105u);
  EXPECT_EQ(
      file_->controlInParts(fake::kEcho, {}, {{nullptr, SIZE_MAX}, {nullptr, 2}}, kLong).status,
      framework::hresult(0x8007000E));
}

TEST_F(IoControlTest, CopyThatDoesNotFitFails) {
  EXPECT_EQ(control(fake::kCopyTooMuch, {}, 10).status, framework::hresult(kInsufficient));
  EXPECT_EQ(control(fake::kCopyBeyond, {}, 10).status, framework::hresult(kInsufficient));
}

TEST_F(IoControlTest, CompleteKeepsTheByteCountThatWasSet) {
  const IoResult result = control(fake::kCompleteKeepCount, numbers({0xC0000178}), 2);
  EXPECT_EQ(result.status, framework::hresult(0xC0000178));
  EXPECT_EQ(result.information, 3u);
  EXPECT_EQ(result.output.size(), 2u);
}

TEST_F(IoControlTest, SecondCompletionIsIgnoredAndReported) {
  const IoResult result = control(fake::kCompleteTwice);
  EXPECT_EQ(result.status, framework::kOk);
  EXPECT_EQ(result.information, 1u);
  host_->tearDown();
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("completed a request twice")));
}

TEST_F(IoControlTest, ShortInputIsFollowedByZeroBytes) {
  EXPECT_THAT(control(fake::kReadFour, {0xAB}).output, ElementsAre(0xAB, 0, 0, 0));
}

TEST_F(IoControlTest, FileNameIsTheInterfacesNameBehindABackslash) {
  EXPECT_THAT(fileName(300), ::testing::IsSupersetOf({0u, 6u}));
  const auto name = fileName(6);
  EXPECT_THAT(name, ElementsAre(0u, 6u, '\\', 'd', 'e', 'v', '0', 0u, '#'));
}

TEST_F(IoControlTest, FileNameThatDoesNotFitIsRefusedWithItsLength) {
  EXPECT_THAT(fileName(5), ElementsAre(kInsufficient, 6u, '#', '#', '#', '#', '#', '#'));
  EXPECT_THAT(fileName(0), ElementsAre(kInsufficient, 6u, '#'));
}

TEST_F(IoControlTest, ContextIsAttachedOnceAndFoundAgain) {
  const auto results = toNumbers(control(fake::kContexts).output);
  EXPECT_THAT(results, ElementsAre(0x80070490u, 0u, 0x800700B7u, 0u));
}

TEST_F(IoControlTest, ContextIsCleanedOnceTheRequestIsDone) {
  for (int i = 0; i < 3; ++i) {
    const auto operation = submit(fake::kEcho, {1});
    ASSERT_TRUE(operation->wait(kLong));
  }
  EXPECT_EQ(counter(fake::kCleanups), 3u);
}

TEST_F(IoControlTest, GettersGiveTheObjectsOfTheRequest) {
  const IoResult result = control(fake::kGetters);
  EXPECT_EQ(result.status, framework::kOk);
  EXPECT_EQ(result.information, 0u);
}

TEST_F(IoControlTest, UnusedOperationsFailAndAreReported) {
  const IoResult result = control(fake::kUnimplemented, {1});
  EXPECT_EQ(result.status, framework::kOk);
  EXPECT_EQ(result.information, 0u);
  EXPECT_THAT(errors(), ::testing::Contains(HasSubstr("IWDFIoRequest::Send")));
}

TEST_F(IoControlTest, BuffersThatCannotBeHadAreRefused) {
  const IoResult result = control(fake::kEcho, {}, SIZE_MAX);
  EXPECT_EQ(result.status, framework::hresult(0x8007000E));
  EXPECT_EQ(control(fake::kEcho, {1}).output, std::vector<std::uint8_t>{1});
}

TEST_F(IoControlTest, CompletionIsCalledOnceBeforeTheWaitEnds) {
  std::vector<IoResult> results;
  const auto operation = file_->submit(fake::kEcho, {5}, 8,
                                       [&](const IoResult& result) { results.push_back(result); });
  ASSERT_TRUE(operation->wait(kLong));
  ASSERT_EQ(results.size(), 1u);
  EXPECT_THAT(results[0].output, ElementsAre(5));
  EXPECT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().output, results[0].output);
}

TEST_F(IoControlTest, WaitingRequestIsDispatchedButNotCompleted) {
  const auto operation = submit(fake::kWait);
  EXPECT_FALSE(operation->completed());
  EXPECT_FALSE(operation->wait(0ms));
  const IoResult released = control(fake::kReleaseWaiting, numbers({0}));
  EXPECT_THAT(toNumbers(released.output), ElementsAre(1u, 0u));
  EXPECT_TRUE(operation->completed());
}

TEST_F(IoControlTest, TimeOutCancelsTheRequest) {
  const IoResult result = file_->control(fake::kWait, {}, 0, 1ms);
  EXPECT_EQ(result.status, kTimedOut);
  // Cancelled, now or as soon as it is marked; it is not there to be released.
  EXPECT_THAT(toNumbers(control(fake::kReleaseWaiting, numbers({0})).output)[0], 0u);
}

TEST_F(IoControlTest, FilesAreIndependentOfEachOther) {
  const auto second = host_->open(L"dev0");
  ASSERT_NE(second, nullptr);
  const auto operation = second->submit(fake::kWait, {}, 0, nullptr);
  file_.reset();
  EXPECT_FALSE(operation->completed());
  second->control(fake::kReleaseWaiting, numbers({0}), 8, kLong);
  EXPECT_TRUE(operation->completed());
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(IoControlTest, RequestOutlivesItsFileHandle) {
  const auto operation = submit(fake::kWait);
  file_ = host_->open(L"dev0");
  control(fake::kReleaseWaiting, numbers({0}));
  EXPECT_TRUE(operation->completed());
}

}  // namespace
}  // namespace zelta::host
