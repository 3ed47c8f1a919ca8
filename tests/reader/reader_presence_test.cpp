#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "diagnostics/traced_lock.h"
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

constexpr std::uint32_t kCancelled = 0x800704C7;

class Presence : public testing::Test {
 protected:
  void isPresent(FakeRequest& request) { reader_.IoSmartCardIsPresent(&request, 0, 0); }
  void isAbsent(FakeRequest& request) { reader_.IoSmartCardIsAbsent(&request, 0, 0); }
  void cancelDirectly(FakeRequest& request) {
    const TracedLock lock("test", device_.deviceLock(), __LINE__);
    reader_.IoCancelRequest(&request);
  }

  LogCapture log_;
  FakeReaderDevice device_;
  ScriptedReader reader_{device_};
};

TEST_F(Presence, IsPresentWithACardCompletesAtOnce) {
  FakeRequest request(device_);
  request.checkingLock();
  isPresent(request);
  EXPECT_EQ(request.status(), 0u);
  EXPECT_EQ(request.information(), 0u);
  EXPECT_EQ(reader_.checks, 1);
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kInserted));
  EXPECT_THAT(log_.records(), ElementsAre(info("[IPRE]IOCTL_SMARTCARD_IS_PRESENT")));
}

TEST_F(Presence, IsAbsentWithoutACardCompletesAtOnce) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    log_.clear();
    reader_.checkResult = result;
    FakeRequest request(device_);
    request.checkingLock();
    isAbsent(request);
    EXPECT_EQ(request.status(), 0u);
    EXPECT_EQ(request.information(), 0u);
    EXPECT_FALSE(reader_.waiting().any(CardEvent::kRemoved));
    EXPECT_THAT(log_.records(), ElementsAre(info("[IABS]IOCTL_SMARTCARD_IS_ABSENT")));
  }
}

TEST_F(Presence, IsPresentWithoutACardWaitsMarkedCancelable) {
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    log_.clear();
    reader_.checkResult = result;
    FakeRequest request(device_);
    request.checkingLock();
    isPresent(request);
    EXPECT_FALSE(request.completed());
    EXPECT_TRUE(request.markedCancelable());
    EXPECT_TRUE(reader_.waiting().any(CardEvent::kInserted));
    EXPECT_FALSE(reader_.waiting().any(CardEvent::kRemoved));
    EXPECT_EQ(device_.callbackReferences(), 0);
    request.cancel();
    EXPECT_EQ(request.status(), kCancelled);
    EXPECT_EQ(request.information(), 0u);
    EXPECT_FALSE(reader_.waiting().any(CardEvent::kInserted));
    EXPECT_THAT(log_.records(),
                ElementsAre(info("[IPRE]IOCTL_SMARTCARD_IS_PRESENT"), info("[CREQ]Cancel Insert")));
  }
}

TEST_F(Presence, IsAbsentWithACardWaitsMarkedCancelable) {
  FakeRequest request(device_);
  request.checkingLock();
  isAbsent(request);
  EXPECT_FALSE(request.completed());
  EXPECT_TRUE(request.markedCancelable());
  EXPECT_TRUE(reader_.waiting().any(CardEvent::kRemoved));
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kInserted));
  EXPECT_EQ(device_.callbackReferences(), 0);
  request.cancel();
  EXPECT_EQ(request.status(), kCancelled);
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kRemoved));
  EXPECT_THAT(log_.records(),
              ElementsAre(info("[IABS]IOCTL_SMARTCARD_IS_ABSENT"), info("[CREQ]Cancel Remove")));
}

TEST_F(Presence, IsPresentWithoutACallbackWaitsUncancelable) {
  reader_.checkResult = QueryResult::kFailure;
  device_.setQueryResult(framework::kNoInterface);
  FakeRequest request(device_);
  isPresent(request);
  EXPECT_FALSE(request.completed());
  EXPECT_FALSE(request.markedCancelable());
  EXPECT_TRUE(reader_.waiting().any(CardEvent::kInserted));
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(0x80004002, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT: invalid callback")));
  cancelDirectly(request);
}

TEST_F(Presence, IsAbsentWithoutACallbackWaitsUncancelable) {
  device_.setQueryResult(framework::kNoInterface);
  FakeRequest request(device_);
  isAbsent(request);
  EXPECT_FALSE(request.completed());
  EXPECT_FALSE(request.markedCancelable());
  EXPECT_TRUE(reader_.waiting().any(CardEvent::kRemoved));
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(0x80004002, "[IABS]IOCTL_SMARTCARD_IS_ABSENT: invalid callback!")));
  cancelDirectly(request);
}

TEST_F(Presence, RequestCancelledBeforeItIsMarkedIsCompletedWhileItIsMarked) {
  reader_.checkResult = QueryResult::kFailure;
  FakeRequest insert(device_);
  insert.cancel();
  EXPECT_FALSE(insert.completed());
  isPresent(insert);
  EXPECT_EQ(insert.status(), kCancelled);
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kInserted));

  reader_.checkResult = QueryResult::kSuccess;
  FakeRequest remove(device_);
  remove.cancel();
  isAbsent(remove);
  EXPECT_EQ(remove.status(), kCancelled);
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kRemoved));
}

TEST_F(Presence, CancellingWhatIsInNoListCompletesItAndLogsNothing) {
  FakeRequest request(device_);
  request.checkingLock();
  cancelDirectly(request);
  EXPECT_EQ(request.status(), kCancelled);
  EXPECT_EQ(request.information(), 0u);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(Presence, CancellingTakesARequestOutOfBothLists) {
  FakeRequest request(device_);
  {
    const TracedLock lock("test", reader_.waiting().deviceLock(), __LINE__);
    reader_.waiting().add(CardEvent::kRemoved, request);
    reader_.waiting().add(CardEvent::kInserted, request);
  }
  cancelDirectly(request);
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kRemoved));
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kInserted));
  EXPECT_THAT(log_.records(),
              ElementsAre(info("[CREQ]Cancel Remove"), info("[CREQ]Cancel Insert")));
}

TEST_F(Presence, StoppingToWaitTakesARequestOutOfItsListUncompleted) {
  FakeRequest request(device_);
  isAbsent(request);
  const auto stopWaiting = [&] {
    const TracedLock lock("test", device_.deviceLock(), __LINE__);
    return reader_.stopWaiting(request);
  };
  EXPECT_TRUE(stopWaiting());
  EXPECT_FALSE(request.completed());
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kRemoved));
  EXPECT_FALSE(stopWaiting());
  request.cancel();
}

TEST_F(Presence, TheAgentIsAskedWithTheDeviceLockFree) {
  reader_.onCheck = [this] { EXPECT_FALSE(device_.lockIsHeld()); };
  FakeRequest present(device_);
  isPresent(present);
  FakeRequest absent(device_);
  isAbsent(absent);
  EXPECT_EQ(reader_.checks, 2);
  absent.cancel();
}

TEST_F(Presence, CheckThatThrowsLeavesTheRequestToTheCallerAndTheLocksFree) {
  reader_.onCheck = [] { throw std::bad_alloc(); };
  FakeRequest request(device_);
  EXPECT_THROW(isPresent(request), std::bad_alloc);
  EXPECT_THROW(isAbsent(request), std::bad_alloc);
  EXPECT_FALSE(request.completed());
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kInserted));
  EXPECT_FALSE(reader_.waiting().any(CardEvent::kRemoved));
  reader_.onCheck = nullptr;
  isPresent(request);  // would wait for ever where a lock was left held
  EXPECT_EQ(request.status(), 0u);
}

}  // namespace
}  // namespace zelta
