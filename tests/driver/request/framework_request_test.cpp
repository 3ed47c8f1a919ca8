#include "driver/request/framework_request.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/doubles/framework/fake_wdf.h"

namespace zelta {
namespace {

using framework::ComPtr;
using test::FakeWdfRequest;
using test::livingObjects;
using test::RequestSetup;
using testing::ElementsAre;

class FrameworkRequestTest : public testing::Test {
 protected:
  FrameworkRequestTest() {
    setup_.input = std::vector<std::uint8_t>{1, 2, 3};
    setup_.outputCapacity = 4;
  }
  ~FrameworkRequestTest() override { EXPECT_EQ(livingObjects(), 0) << "references not released"; }

  // With the framework's reference only, which the completion gives up.
  FakeWdfRequest* make() { return new FakeWdfRequest(setup_); }

  RequestSetup setup_;
};

TEST_F(FrameworkRequestTest, IsTheSameForDispatchAndCancel) {
  FakeWdfRequest* request = make();
  EXPECT_EQ(FrameworkRequest::attached(*request), nullptr);
  IoRequest* adapter = nullptr;
  ASSERT_EQ(FrameworkRequest::attach(*request, &adapter), 0);
  ASSERT_NE(adapter, nullptr);
  EXPECT_EQ(FrameworkRequest::attached(*request), adapter);
  IoRequest* again = nullptr;
  EXPECT_EQ(FrameworkRequest::attach(*request, &again), 0);
  EXPECT_EQ(again, adapter);
  adapter->complete(0);
}

TEST_F(FrameworkRequestTest, HoldsNoReferenceOnItsRequest) {
  FakeWdfRequest* request = make();
  IoRequest* adapter = nullptr;
  ASSERT_EQ(FrameworkRequest::attach(*request, &adapter), 0);
  EXPECT_EQ(request->references(), 1u);
  adapter->completeWithInformation(0, 2);  // destroys both
}

TEST_F(FrameworkRequestTest, IsNotMadeWhereTheContextIsRefused) {
  setup_.assignResult = framework::hresult(0x80070032);
  FakeWdfRequest* request = make();
  IoRequest* adapter = nullptr;
  EXPECT_EQ(FrameworkRequest::attach(*request, &adapter), framework::hresult(0x80070032));
  EXPECT_EQ(adapter, nullptr);
  const auto outcome = request->outcome();
  FrameworkRequest(*request).completeWithInformation(framework::hresult(0x80070032), 0);
  EXPECT_EQ(outcome->status(), 0x80070032u);
}

TEST_F(FrameworkRequestTest, CompletesWithAndWithoutInformation) {
  FakeWdfRequest* first = make();
  FakeWdfRequest* second = make();
  const auto with = first->outcome();
  const auto without = second->outcome();
  FrameworkRequest(*first).completeWithInformation(framework::hresult(0xC0000178), 12);
  FrameworkRequest(*second).complete(framework::hresult(0x8007001F));
  EXPECT_EQ(with->status(), 0xC0000178u);
  EXPECT_EQ(with->information(), 12u);
  EXPECT_EQ(without->status(), 0x8007001Fu);
  EXPECT_EQ(without->information(), std::nullopt);
}

TEST_F(FrameworkRequestTest, ReadsInputAndWritesOutput) {
  FakeWdfRequest* request = make();
  const auto outcome = request->outcome();
  FrameworkRequest adapter(*request);
  {
    const auto input = adapter.inputMemory();
    std::size_t size = 0;
    const auto* data = static_cast<const std::uint8_t*>(input->dataBuffer(&size));
    EXPECT_THAT(std::vector<std::uint8_t>(data, data + size), ElementsAre(1, 2, 3));
    const auto output = adapter.outputMemory();
    const std::uint8_t bytes[] = {7, 8};
    EXPECT_EQ(output->copyFromBuffer(1, bytes, 2), 0);
    EXPECT_TRUE(framework::failed(output->copyFromBuffer(3, bytes, 2)));
  }
  adapter.completeWithInformation(0, 4);
  EXPECT_THAT(outcome->output(), ElementsAre(0, 7, 8, 0));
}

TEST_F(FrameworkRequestTest, GivesNoHolderOfWhatIsNotThere) {
  setup_ = RequestSetup{};
  setup_.fileName.reset();
  FakeWdfRequest* request = make();
  FrameworkRequest adapter(*request);
  EXPECT_EQ(adapter.inputMemory(), nullptr);
  EXPECT_EQ(adapter.outputMemory(), nullptr);
  EXPECT_EQ(adapter.fileObject(), nullptr);
  adapter.complete(0);
}

TEST_F(FrameworkRequestTest, ReadsTheFileName) {
  setup_.fileName = L"\\dev5";
  FakeWdfRequest* request = make();
  FrameworkRequest adapter(*request);
  wchar_t name[10] = {};
  framework::DWORD capacity = 10;
  EXPECT_EQ(adapter.fileObject()->retrieveFileName(name, &capacity), 0);
  EXPECT_STREQ(name, L"\\dev5");
  capacity = 5;
  EXPECT_TRUE(framework::failed(adapter.fileObject()->retrieveFileName(name, &capacity)));
  adapter.complete(0);
}

TEST_F(FrameworkRequestTest, ReferencesGoToTheFrameworksObjectAndKeepTheAdapter) {
  FakeWdfRequest* request = make();
  IoRequest* adapter = nullptr;
  ASSERT_EQ(FrameworkRequest::attach(*request, &adapter), 0);
  adapter->addRef();
  EXPECT_EQ(request->references(), 2u);
  adapter->complete(0);
  EXPECT_EQ(request->references(), 1u);
  adapter->release();  // the last one: destroys both
  EXPECT_EQ(livingObjects(), 0);
}

TEST_F(FrameworkRequestTest, OutlivesACleanupAtTheCompletionWhileItIsReferenced) {
  setup_.cleanUpAtCompletion = true;
  FakeWdfRequest* request = make();
  IoRequest* adapter = nullptr;
  ASSERT_EQ(FrameworkRequest::attach(*request, &adapter), 0);
  adapter->addRef();
  adapter->complete(0);
  EXPECT_EQ(request->references(), 1u);
  EXPECT_EQ(FrameworkRequest::attached(*request), nullptr) << "not cleaned up yet";
  adapter->release();  // the last one: destroys both
  EXPECT_EQ(livingObjects(), 0);
}

TEST_F(FrameworkRequestTest, ForwardsMarkAndUnmark) {
  struct Callback final : framework::IRequestCallbackCancel {
    framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID, void**) override {
      return framework::kNoInterface;
    }
    framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override { return 1; }
    framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override { return 1; }
    void ZELTA_STDMETHODCALLTYPE OnCancel(framework::IWDFIoRequest*) override {}
  } callback;
  FakeWdfRequest* request = make();
  FrameworkRequest adapter(*request);
  EXPECT_EQ(adapter.unmarkCancelable(), framework::hresult(0x800704C7));
  adapter.markCancelable(&callback);
  EXPECT_TRUE(request->markedCancelable());
  EXPECT_EQ(adapter.unmarkCancelable(), 0);
  EXPECT_FALSE(request->markedCancelable());
  adapter.complete(0);
}

}  // namespace
}  // namespace zelta
