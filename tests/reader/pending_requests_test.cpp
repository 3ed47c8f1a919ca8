#include "reader/pending_requests.h"

#include <gtest/gtest.h>

#include "tests/doubles/request/fake_request.h"

namespace zelta {
namespace {

using test::FakeReaderDevice;
using test::FakeRequest;

class PendingRequestsTest : public testing::Test {
 protected:
  FakeReaderDevice device_;
  FakeRequest first_{device_};
  FakeRequest second_{device_};
  FakeRequest third_{device_};
  PendingRequests list_;
};

TEST_F(PendingRequestsTest, RemovingTakesTheFirstOfEqualEntriesAndKeepsTheOrderOfTheRest) {
  for (FakeRequest* request : {&first_, &second_, &first_, &third_}) list_.append(request);
  EXPECT_TRUE(list_.remove(&first_));
  EXPECT_TRUE(list_.remove(&third_));
  EXPECT_EQ(list_.newest(), &first_);
  EXPECT_TRUE(list_.remove(&first_));
  EXPECT_EQ(list_.newest(), &second_);
  EXPECT_FALSE(list_.remove(&third_));
  EXPECT_EQ(list_.size(), 1u);
}

}  // namespace
}  // namespace zelta
