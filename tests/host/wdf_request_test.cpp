// An I/O control as the driver sees it, and its result for the caller.
#include <array>

#include "tests/host/host_fixture.h"

namespace zelta::host {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using IoControlTest = StartedHostTest;

struct Exchange {
  const char* name;
  std::uint32_t code;
  std::vector<std::uint8_t> input;
  std::size_t capacity;
  IoResult result;
};

IoResult bytes(std::size_t information, std::vector<std::uint8_t> output) {
  return {framework::kOk, information, std::move(output)};
}
IoResult words(const std::vector<std::uint32_t>& values) {
  return bytes(values.size() * sizeof values[0], numbers(values));
}
IoResult failure(std::uint32_t code) { return {framework::hresult(code), 0, {}}; }

constexpr std::uint32_t kInsufficient = 0x8007007A;

const Exchange kExchanges[] = {
    {"CodeAndLengths_AreTold", fake::kParameters, {1, 2}, 12, words({fake::kParameters, 2, 12})},
    {"NoBuffer_NoMemory", fake::kMemoryShape, {}, 0, bytes(0, {})},
    {"NoOutput_NoMemory", fake::kMemoryShape, {1}, 0, bytes(fake::kHasInput, {})},
    {"NoInput_NoMemory", fake::kMemoryShape, {}, 1, bytes(fake::kHasOutput, {0})},
    {"BothBuffers_Memory", fake::kMemoryShape, {1}, 1, bytes(3, {0})},
    {"CountBeyondTheCapacity_OutputIsCut", fake::kOverrun, {}, 3, bytes(103, {0, 0, 0})},
    {"CopyThatIsTooLong_Fails", fake::kCopyTooMuch, {}, 10, failure(kInsufficient)},
    {"CopyBeyondTheEnd_Fails", fake::kCopyBeyond, {}, 10, failure(kInsufficient)},
    {"ShortInput_IsFollowedByZeroBytes", fake::kReadFour, {0xAB}, 4, bytes(4, {0xAB, 0, 0, 0})},
    {"Context_IsAttachedOnce", fake::kContexts, {}, 64, words({0x80070490, 0, 0x800700B7, 0})},
    {"Getters_GiveTheRequestsObjects", fake::kGetters, {}, 64, bytes(0, {})},
    {"BuffersThatCannotBeHad_AreRefused", fake::kEcho, {}, SIZE_MAX, failure(0x8007000E)},
};

class ExchangeTest : public StartedHostTest, public ::testing::WithParamInterface<Exchange> {};

TEST_P(ExchangeTest, Control_GivesItsResultAndTheNextOneWorks) {
  const IoResult result = control(GetParam().code, GetParam().input, GetParam().capacity);
  EXPECT_EQ(result.status, GetParam().result.status);
  EXPECT_EQ(result.information, GetParam().result.information);
  EXPECT_EQ(result.output, GetParam().result.output);
  EXPECT_EQ(control(fake::kEcho, {1}).output, std::vector<std::uint8_t>{1});
}

INSTANTIATE_TEST_SUITE_P(Controls, ExchangeTest, ::testing::ValuesIn(kExchanges),
                         [](const auto& each) { return each.param.name; });

// The memory's former content must not be exposed.
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

TEST_F(IoControlTest, CompleteKeepsTheByteCountThatWasSet) {
  const IoResult result = control(fake::kCompleteKeepCount, numbers({0xC0000178}), 2);
  EXPECT_EQ(result.status, framework::hresult(0xC0000178));
  EXPECT_EQ(result.information, 3u);
  EXPECT_EQ(result.output.size(), 2u);
}

TEST_F(IoControlTest, FileNameIsTheInterfacesNameBehindABackslashOrRefusedWithItsLength) {
  const auto fileName = [this](std::uint32_t capacity) {
    return toNumbers(control(fake::kFileName, numbers({capacity}), 2048).output);
  };
  EXPECT_THAT(fileName(300), ::testing::IsSupersetOf({0u, 6u}));
  EXPECT_THAT(fileName(6), ElementsAre(0u, 6u, '\\', 'd', 'e', 'v', '0', 0u, '#'));
  EXPECT_THAT(fileName(5), ElementsAre(kInsufficient, 6u, '#', '#', '#', '#', '#', '#'));
  EXPECT_THAT(fileName(0), ElementsAre(kInsufficient, 6u, '#'));
}

TEST_F(IoControlTest, SecondCompletionIsIgnoredAndReported) {
  const IoResult result = control(fake::kCompleteTwice);
  EXPECT_EQ(result.status, framework::kOk);
  EXPECT_EQ(result.information, 1u);
  host_->tearDown();
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("completed a request twice")));
}

TEST_F(IoControlTest, ContextIsCleanedOnceTheRequestIsDone) {
  for (int i = 0; i < 3; ++i) {
    const auto operation = submit(fake::kEcho, {1});
    ASSERT_TRUE(operation->wait(kLong));
  }
  EXPECT_EQ(counter(fake::kCleanups), 3u);
}

TEST_F(IoControlTest, UnusedOperationsFailAndAreReported) {
  const IoResult result = control(fake::kUnimplemented, {1});
  EXPECT_EQ(result.status, framework::kOk);
  EXPECT_EQ(result.information, 0u);
  EXPECT_THAT(errors(), ::testing::Contains(HasSubstr("IWDFIoRequest::Send")));
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
  EXPECT_THAT(releaseWaiting(), ElementsAre(1u, 0u));
  EXPECT_TRUE(operation->completed());
}

TEST_F(IoControlTest, TimeOutCancelsTheRequest) {
  const IoResult result = file_->control(fake::kWait, {}, 0, 1ms);
  EXPECT_EQ(result.status, kTimedOut);
  // It is cancelled, now or as soon as it is marked, so it cannot be released.
  EXPECT_EQ(releaseWaiting()[0], 0u);
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
  releaseWaiting();
  EXPECT_TRUE(operation->completed());
}

}  // namespace
}  // namespace zelta::host
