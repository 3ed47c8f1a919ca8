// The framework's double complains about each thing that a driver must not do.
#include "tests/doubles/framework/fake_framework.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "framework/com_object.h"

namespace zelta::test {
namespace {

using framework::ComPtr;
using framework::HRESULT;
using framework::IWDFIoRequest;
using testing::ElementsAre;
using testing::IsEmpty;

class Cleanup final : public framework::ComObject<Cleanup, framework::IObjectCleanup> {
 public:
  void ZELTA_STDMETHODCALLTYPE OnCleanup(framework::IWDFObject*) override {}
};

// Completes cancelled requests, after a try to withdraw them.
class Canceller final : public framework::ComObject<Canceller, framework::IRequestCallbackCancel> {
 public:
  void ZELTA_STDMETHODCALLTYPE OnCancel(IWDFIoRequest* request) override {
    unmarked = request->UnmarkCancelable();
    request->Complete(framework::kOk);
  }
  HRESULT unmarked = 0;
};

ComPtr<Canceller> makeCanceller() {
  return ComPtr<Canceller>::adopt(framework::createObject<Canceller>());
}

void assignContext(IWDFIoRequest& request) {
  ComPtr<Cleanup> cleanup = ComPtr<Cleanup>::adopt(framework::createObject<Cleanup>());
  request.AssignContext(cleanup.get(), nullptr);
}

struct Conduct {
  const char* name;
  void (*drive)(IWDFIoRequest&, framework::IRequestCallbackCancel*);
  std::vector<std::string> complaints;
};

class DriverConduct : public testing::TestWithParam<Conduct> {};

TEST_P(DriverConduct, BreachOfTheRequestRules_IsComplainedAbout) {
  FakeFramework framework;
  FakeWdfRequest& request = framework.makeRequest({1, Bytes(4), 4});
  GetParam().drive(request, makeCanceller().get());
  request.cancel();
  EXPECT_THAT(framework.complaints(), testing::ElementsAreArray(GetParam().complaints));
}

const Conduct kConducts[] = {
    {"Good",
     [](IWDFIoRequest& request, auto*) {
       assignContext(request);
       {
         ComPtr<framework::IWDFMemory> memory;
         request.GetOutputMemory(memory.put());
         memory->CopyFromBuffer(0, "abc", 3);
       }
       request.CompleteWithInformation(framework::kOk, 3);
     },
     {}},
    {"WaitsForItsCancellation",
     [](IWDFIoRequest& request, auto* canceller) { request.MarkCancelable(canceller); },
     {}},
    {"CompletesTwice",
     [](IWDFIoRequest& request, auto*) {
       const ComPtr<IWDFIoRequest> keep(&request);
       request.Complete(framework::kOk);
       request.Complete(framework::kOk);
     },
     {"request Complete was called after the request's completion", "request completed 2 times"}},
    {"NeverCompletes", [](IWDFIoRequest&, auto*) {}, {"request completed 0 times"}},
    {"CallsAfterTheDeletion",
     [](IWDFIoRequest& request, auto*) {
       request.Complete(framework::kOk);
       ComPtr<framework::IWDFFile> file;
       request.GetFileObject(file.put());
     },
     {"request was deleted, and then GetFileObject called",
      "request GetFileObject was called after the request's completion"}},
    {"KeepsMemoryBeyondTheCompletion",
     [](IWDFIoRequest& request, auto*) {
       framework::IWDFMemory* memory = nullptr;
       request.GetInputMemory(&memory);
       request.Complete(framework::kOk);
       memory->GetSize();
     },
     {"request was completed with its memory held",
      "memory GetSize was called after the request's completion",
      "request with 1 references left"}},
    {"KeepsAReferenceAndSoItsContext",
     [](IWDFIoRequest& request, auto*) {
       assignContext(request);
       request.AddRef();
       request.Complete(framework::kOk);
     },
     {"request with 1 references left", "context cleaned 0 times"}},
    {"ReleasesTooOften",
     [](IWDFIoRequest& request, auto*) {
       request.Release();
       request.Complete(framework::kOk);
     },
     {"request was released too often", "request was deleted, and then Complete called",
      "request was released too often", "request with -1 references left"}},
    {"CompletesWhileMarked",
     [](IWDFIoRequest& request, auto* canceller) {
       request.MarkCancelable(canceller);
       request.Complete(framework::kOk);
     },
     {"request was completed while it was marked cancelable"}},
    {"MarksTwice",
     [](IWDFIoRequest& request, auto* canceller) {
       request.MarkCancelable(canceller);
       request.MarkCancelable(canceller);
     },
     {"request was marked cancelable twice"}},
    {"CallsWhatNobodyNeeds",
     [](IWDFIoRequest& request, auto*) {
       request.ForwardToIoQueue(nullptr);
       request.Complete(framework::kOk);
     },
     {"unexpected ForwardToIoQueue"}},
};

INSTANTIATE_TEST_SUITE_P(Drivers, DriverConduct, testing::ValuesIn(kConducts),
                         [](const auto& tested) { return tested.param.name; });

TEST(FakeWdfRequestTest, MarkedRequest_CanBeUnmarkedUntilItIsHandedToItsCallback) {
  FakeFramework framework;
  FakeWdfRequest& request = framework.makeRequest();
  const ComPtr<Canceller> canceller = makeCanceller();
  request.MarkCancelable(canceller.get());
  EXPECT_EQ(request.UnmarkCancelable(), framework::kOk);
  request.MarkCancelable(canceller.get());
  request.cancel();
  EXPECT_EQ(canceller->unmarked, framework::hresult(0x800704C7));
  EXPECT_EQ(request.cancelCallbacks(), 1);
  EXPECT_THAT(framework.complaints(), IsEmpty());
}

TEST(FakeFrameworkTest, ReferencesLeftOnTheDevice_AreComplainedAboutOnceItIsRemoved) {
  FakeFramework framework;
  const ComPtr<Canceller> callback = makeCanceller();
  ComPtr<framework::IWDFDevice> device;
  framework.driver.CreateDevice(&framework.init, callback.get(), device.put());
  EXPECT_THAT(framework.complaints(), IsEmpty());
  framework.removeDevice();
  EXPECT_THAT(framework.complaints(), ElementsAre("device with 1 references left"));
}

}  // namespace
}  // namespace zelta::test
