#include "driver/request/memory_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/bytes.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/support/log_capture.h"

namespace zelta {
namespace {

using test::error;
using test::FakeReaderDevice;
using test::FakeRequest;
using test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto kNoCode = static_cast<std::uint32_t>(-500);

class MemoryUtilTest : public testing::Test {
 protected:
  // Completes the request without an answer, as its owner would.
  static void finish(FakeRequest& request) { request.complete(0); }

  LogCapture log_;
  FakeReaderDevice device_;
  FakeRequest request_{device_};
};

TEST_F(MemoryUtilTest, InputBytesReplaceWhatTheVectorHeld) {
  request_.withInput(Bytes{1, 2, 3});
  Bytes bytes{9, 9, 9, 9, 9};
  EXPECT_TRUE(MemoryUtil::getBuffer(request_, bytes));
  EXPECT_THAT(bytes, ElementsAre(1, 2, 3));
  finish(request_);
}

TEST_F(MemoryUtilTest, EmptyInputIsTrueAndEmpty) {
  request_.withInput(Bytes{});
  Bytes bytes{9};
  EXPECT_TRUE(MemoryUtil::getBuffer(request_, bytes));
  EXPECT_THAT(bytes, IsEmpty());
  EXPECT_THAT(log_.records(), IsEmpty());
  finish(request_);
}

TEST_F(MemoryUtilTest, MissingInputIsFalseAndLogged) {
  Bytes bytes;
  EXPECT_FALSE(MemoryUtil::getBuffer(request_, bytes));
  EXPECT_THAT(log_.records(), ElementsAre(error(kNoCode, "GetInputMemory failed")));
  finish(request_);
}

TEST_F(MemoryUtilTest, IntegerIsTheFirstFourBytesLittleEndian) {
  request_.withInput(Bytes{0x78, 0x56, 0x34, 0x12, 0xFF});
  EXPECT_EQ(MemoryUtil::getInt(request_), 0x12345678);
  finish(request_);
}

TEST_F(MemoryUtilTest, IntegerIsSigned) {
  request_.withInput(Bytes{0xFE, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(MemoryUtil::getInt(request_), -2);
  finish(request_);
}

TEST_F(MemoryUtilTest, MissingIntegerIsMinusOneAndLogged) {
  EXPECT_EQ(MemoryUtil::getInt(request_), -1);
  EXPECT_THAT(log_.records(), ElementsAre(error(kNoCode, "GetInputMemory failed")));
  finish(request_);
}

TEST_F(MemoryUtilTest, BufferIsWrittenAndCompletedUnderTheDeviceLock) {
  request_.withOutput(5).checkingLock();
  MemoryUtil::setBuffer(device_, request_, {1, 2, 3});
  EXPECT_EQ(request_.status(), 0u);
  EXPECT_EQ(request_.information(), 3u);
  EXPECT_THAT(request_.output(), ElementsAre(1, 2, 3, 0xCC, 0xCC));
  EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(MemoryUtilTest, EmptyBufferCompletesWithCountZero) {
  request_.withOutput(5);
  MemoryUtil::setBuffer(device_, request_, {});
  EXPECT_EQ(request_.status(), 0u);
  EXPECT_EQ(request_.information(), 0u);
}

TEST_F(MemoryUtilTest, IntegerIsWrittenLittleEndian) {
  request_.withOutput(4).checkingLock();
  MemoryUtil::setInt(device_, request_, 0x80000001);
  EXPECT_EQ(request_.status(), 0u);
  EXPECT_EQ(request_.information(), 4u);
  EXPECT_THAT(request_.output(), ElementsAre(0x01, 0x00, 0x00, 0x80));
}

TEST_F(MemoryUtilTest, IntegerIntoTwoBytesCompletesWithFourAndWritesNothing) {
  request_.withOutput(2);
  MemoryUtil::setInt(device_, request_, 7);
  EXPECT_EQ(request_.status(), 0u);
  EXPECT_EQ(request_.information(), 4u);
  EXPECT_FALSE(request_.outputWritten());
  EXPECT_THAT(request_.output(), ElementsAre(0xCC, 0xCC));
}

TEST_F(MemoryUtilTest, TextIsWrittenWithItsTerminator) {
  request_.withOutput(4).checkingLock();
  MemoryUtil::setString(device_, request_, "abc");
  EXPECT_EQ(request_.status(), 0u);
  EXPECT_EQ(request_.information(), 4u);
  EXPECT_THAT(request_.output(), ElementsAre('a', 'b', 'c', 0));
}

TEST_F(MemoryUtilTest, EmptyTextIsOneZeroByte) {
  request_.withOutput(2);
  MemoryUtil::setString(device_, request_, "");
  EXPECT_EQ(request_.information(), 1u);
  EXPECT_THAT(request_.output(), ElementsAre(0, 0xCC));
}

TEST_F(MemoryUtilTest, MissingOutputIsAGeneralFailureWithoutACount) {
  FakeRequest buffer(device_);
  FakeRequest number(device_);
  FakeRequest text(device_);
  MemoryUtil::setBuffer(device_, buffer.checkingLock(), {1});
  MemoryUtil::setInt(device_, number.checkingLock(), 1);
  MemoryUtil::setString(device_, text.checkingLock(), "a");
  for (const FakeRequest* request : {&buffer, &number, &text}) {
    EXPECT_EQ(request->status(), 0x8007001Fu);
    EXPECT_EQ(request->information(), std::nullopt);
  }
  const auto failed = error(31, "GetOutputMemory failed");
  EXPECT_THAT(log_.records(), ElementsAre(failed, failed, failed));
  finish(request_);
}

TEST_F(MemoryUtilTest, HoldersThatCannotBeMadeLeaveTheRequestToTheCaller) {
  request_.withInput(Bytes{1, 2, 3, 4}).withOutput(4).failingHolders();
  Bytes bytes;
  EXPECT_THROW(MemoryUtil::getBuffer(request_, bytes), std::bad_alloc);
  EXPECT_THROW(MemoryUtil::getInt(request_), std::bad_alloc);
  EXPECT_THROW(MemoryUtil::setInt(device_, request_, 1), std::bad_alloc);
  EXPECT_FALSE(request_.completed());
  EXPECT_FALSE(device_.lockIsHeld());
  finish(request_);
}

}  // namespace
}  // namespace zelta
