#include "driver/request/memory_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <type_traits>

#include "contract/status.h"
#include "tests/doubles/logging/log_capture.h"
#include "tests/doubles/request/fake_request.h"

namespace zelta {
namespace {

using test::error;
using test::FakeRequest;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto kNoCode = static_cast<std::uint32_t>(-500);

class MemoryUtilTest : public testing::Test {
 protected:
  test::LogCapture log_;
  test::FakeReaderDevice device_;
  FakeRequest request_{device_};
};

// Reading leaves the request to its owner, who completes it in the end.
class MemoryUtilInput : public MemoryUtilTest {
 protected:
  void TearDown() override { request_.complete(status::kSuccess); }
};

TEST_F(MemoryUtilInput, Bytes_ReplaceWhatTheVectorHeld) {
  request_.withInput(Bytes{1, 2, 3});
  Bytes bytes{9, 9, 9, 9, 9};
  EXPECT_TRUE(MemoryUtil::getBuffer(request_, bytes));
  EXPECT_THAT(bytes, ElementsAre(1, 2, 3));
}

TEST_F(MemoryUtilInput, EmptyInput_IsAnEmptyVector) {
  request_.withInput(Bytes{});
  Bytes bytes{9};
  EXPECT_TRUE(MemoryUtil::getBuffer(request_, bytes));
  EXPECT_THAT(bytes, IsEmpty());
  EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(MemoryUtilInput, Integer_IsTheFirstFourBytesLittleEndianAndSigned) {
  request_.withInput(Bytes{0x78, 0x56, 0x34, 0x12, 0xFF});
  EXPECT_EQ(MemoryUtil::getInt(request_), 0x12345678);
  request_.withInput(Bytes{0xFE, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(MemoryUtil::getInt(request_), -2);
}

TEST_F(MemoryUtilInput, MissingInput_IsLoggedAndFalseOrMinusOne) {
  Bytes bytes;
  EXPECT_FALSE(MemoryUtil::getBuffer(request_, bytes));
  EXPECT_EQ(MemoryUtil::getInt(request_), -1);
  const auto failed = error(kNoCode, "GetInputMemory failed");
  EXPECT_THAT(log_.records(), ElementsAre(failed, failed));
}

TEST_F(MemoryUtilInput, HoldersThatCannotBeMade_LeaveTheRequestToTheCaller) {
  request_.withInput(Bytes{1, 2, 3, 4}).withOutput(4).failingHolders();
  Bytes bytes;
  EXPECT_THROW((void)MemoryUtil::getBuffer(request_, bytes), std::bad_alloc);
  EXPECT_THROW(MemoryUtil::getInt(request_), std::bad_alloc);
  EXPECT_THROW(MemoryUtil::setInt(device_, request_, 1), std::bad_alloc);
  EXPECT_FALSE(request_.completed());
  EXPECT_FALSE(device_.lockIsHeld());
}

struct Answer {
  const char* name;
  std::function<void(ReaderDevice&, IoRequest&)> set;
  std::size_t capacity;
  std::size_t information;
  Bytes output;  // untouched bytes are 0xCC
};

// Calls `set` with a value of that many bytes.
template <typename Value>
Answer answer(const char* name, void (*set)(ReaderDevice&, IoRequest&, Value),
              const std::decay_t<Value>& value, std::size_t size, std::size_t capacity,
              Bytes output) {
  return {name,
          [set, value](ReaderDevice& device, IoRequest& request) { set(device, request, value); },
          capacity, size, std::move(output)};
}

class MemoryUtilAnswer : public MemoryUtilTest, public testing::WithParamInterface<Answer> {};

TEST_P(MemoryUtilAnswer, Output_IsWrittenIfItFitsAndCompletedUnderTheDeviceLock) {
  request_.withOutput(GetParam().capacity).checkingLock();
  GetParam().set(device_, request_);
  EXPECT_EQ(request_.status(), 0u);
  EXPECT_EQ(request_.information(), GetParam().information);
  EXPECT_EQ(request_.output(), GetParam().output);
  EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_P(MemoryUtilAnswer, MissingOutput_IsLoggedAndAGeneralFailureWithoutACount) {
  request_.checkingLock();
  GetParam().set(device_, request_);
  EXPECT_EQ(request_.status(), 0x8007001Fu);
  EXPECT_EQ(request_.information(), std::nullopt);
  EXPECT_THAT(log_.records(), ElementsAre(error(31, "GetOutputMemory failed")));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, MemoryUtilAnswer,
    testing::Values(answer("Buffer", MemoryUtil::setBuffer, {1, 2, 3}, 3, 5, {1, 2, 3, 0xCC, 0xCC}),
                    answer("EmptyBuffer", MemoryUtil::setBuffer, {}, 0, 2, {0xCC, 0xCC}),
                    answer("Integer", MemoryUtil::setInt, 0x80000001, 4, 4,
                           {0x01, 0x00, 0x00, 0x80}),
                    answer("IntegerThatDoesNotFit", MemoryUtil::setInt, 7, 4, 2, {0xCC, 0xCC}),
                    answer("Text", MemoryUtil::setString, "abc", 4, 4, {'a', 'b', 'c', 0}),
                    answer("EmptyText", MemoryUtil::setString, "", 1, 2, {0, 0xCC})),
    [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace zelta
