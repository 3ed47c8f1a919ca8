#include "driver/request/framework_request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/status.h"
#include "framework/com_object.h"
#include "tests/doubles/framework/fake_framework.h"

namespace zelta {
namespace {

using test::FakeWdfRequest;
using test::RequestSetup;
using testing::ElementsAre;

class FrameworkRequestTest : public testing::Test {
 protected:
  ~FrameworkRequestTest() override { EXPECT_THAT(framework_.complaints(), testing::IsEmpty()); }

  FakeWdfRequest& make(const RequestSetup& setup = {}) { return framework_.makeRequest(setup); }

  static IoRequest* attach(FakeWdfRequest& request) {
    const auto attachment = FrameworkRequest::attach(request);
    EXPECT_EQ(attachment.status, status::kSuccess);
    return attachment.adapter;
  }

  test::FakeFramework framework_;
};

TEST_F(FrameworkRequestTest, AttachedTwice_IsTheSameAdapterAndHoldsNoReference) {
  FakeWdfRequest& request = make();
  EXPECT_EQ(FrameworkRequest::attached(request), nullptr);
  IoRequest* adapter = attach(request);
  ASSERT_NE(adapter, nullptr);
  EXPECT_EQ(FrameworkRequest::attached(request), adapter);
  EXPECT_EQ(attach(request), adapter);
  EXPECT_EQ(request.driversReferences(), 0);
  adapter->completeWithInformation(status::kSuccess, 2);  // destroys both
}

TEST_F(FrameworkRequestTest, ContextRefused_MakesNoAdapter) {
  RequestSetup setup;
  setup.assignResult = status::kNotSupported;
  FakeWdfRequest& request = make(setup);
  const auto attachment = FrameworkRequest::attach(request);
  EXPECT_EQ(attachment.status, status::kNotSupported);
  EXPECT_EQ(attachment.adapter, nullptr);
  FrameworkRequest(request).completeWithInformation(status::kNotSupported, 0);
}

TEST_F(FrameworkRequestTest, Completion_PassesStatusAndInformationOn) {
  FakeWdfRequest& with = make();
  FakeWdfRequest& without = make();
  FrameworkRequest(with).completeWithInformation(status::kNoMedia, 12);
  FrameworkRequest(without).complete(status::kGenFailure);
  EXPECT_EQ(with.status(), status::kNoMedia);
  EXPECT_EQ(with.information(), 12u);
  EXPECT_EQ(without.status(), status::kGenFailure);
  EXPECT_EQ(without.information(), std::nullopt);
}

TEST_F(FrameworkRequestTest, InputOutputAndFileName_AreTheRequests) {
  FakeWdfRequest& request = make({0, Bytes{1, 2, 3}, 4, L"\\dev5"});
  FrameworkRequest adapter(request);
  {
    const auto input = adapter.inputMemory();
    std::size_t size = 0;
    const auto* data = static_cast<const std::uint8_t*>(input->dataBuffer(&size));
    EXPECT_THAT(Bytes(data, data + size), ElementsAre(1, 2, 3));
    const auto output = adapter.outputMemory();
    const std::uint8_t bytes[] = {7, 8};
    EXPECT_EQ(output->copyFromBuffer(1, bytes, 2), status::kSuccess);
    EXPECT_TRUE(framework::failed(output->copyFromBuffer(3, bytes, 2)));
  }
  wchar_t name[10] = {};
  framework::DWORD capacity = 10;
  EXPECT_EQ(adapter.fileObject()->retrieveFileName(name, &capacity), status::kSuccess);
  EXPECT_STREQ(name, L"\\dev5");
  capacity = 5;
  EXPECT_TRUE(framework::failed(adapter.fileObject()->retrieveFileName(name, &capacity)));
  adapter.completeWithInformation(status::kSuccess, 4);
  EXPECT_THAT(request.output(), ElementsAre(0, 7, 8, 0));
}

TEST_F(FrameworkRequestTest, MissingParts_HaveNoHolder) {
  FrameworkRequest adapter(make({0, {}, {}, std::nullopt}));
  EXPECT_EQ(adapter.inputMemory(), nullptr);
  EXPECT_EQ(adapter.outputMemory(), nullptr);
  EXPECT_EQ(adapter.fileObject(), nullptr);
  adapter.complete(status::kSuccess);
}

TEST_F(FrameworkRequestTest, Reference_KeepsRequestAndAdapterWheneverTheFrameworkCleansUp) {
  for (const bool cleanUpAtCompletion : {false, true}) {
    RequestSetup setup;
    setup.cleanUpAtCompletion = cleanUpAtCompletion;
    FakeWdfRequest& request = make(setup);
    IoRequest* adapter = attach(request);
    adapter->addRef();
    EXPECT_EQ(request.driversReferences(), 1);
    adapter->complete(status::kSuccess);
    EXPECT_EQ(request.driversReferences(), 1);
    EXPECT_EQ(request.cleanups(), cleanUpAtCompletion ? 1 : 0);
    adapter->release();  // the last one: destroys both
    EXPECT_EQ(request.driversReferences(), 0);
  }
}

}  // namespace
}  // namespace zelta
