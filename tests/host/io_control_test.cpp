// What the driver sees of one I/O control, and what its caller gets back.
#include "tests/host/host_fixture.h"

namespace zelta::host {
namespace {

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

TEST_F(IoControlTest, OutputIsWhatTheDriverWrote) {
  const IoResult result = control(fake::kEcho, {1, 2, 3}, 10);
  EXPECT_EQ(result.status, framework::kOk);
  EXPECT_EQ(result.information, 3u);
  EXPECT_THAT(result.output, ElementsAre(1, 2, 3));
}

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
    ASSERT_TRUE(operation->waitDispatched(kLong));
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
  const auto operation = submitWaiting();
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
  ASSERT_TRUE(operation->waitDispatched(kLong));
  file_.reset();
  EXPECT_FALSE(operation->completed());
  second->control(fake::kReleaseWaiting, numbers({0}), 8, kLong);
  EXPECT_TRUE(operation->completed());
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(IoControlTest, RequestOutlivesItsFileHandle) {
  const auto operation = submitWaiting();
  file_ = host_->open(L"dev0");
  control(fake::kReleaseWaiting, numbers({0}));
  EXPECT_TRUE(operation->completed());
}

}  // namespace
}  // namespace zelta::host
