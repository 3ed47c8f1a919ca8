// The recording framework itself: it complains about each thing that a driver must not do.
#include "tests/doubles/framework/recording_framework.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "framework/com_object.h"

namespace zelta::test {
namespace {

using framework::ComPtr;
using framework::HRESULT;
using framework::IWDFIoRequest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Cleanup final : public framework::ComObject<Cleanup, framework::IObjectCleanup> {
 public:
  void ZELTA_STDMETHODCALLTYPE OnCleanup(framework::IWDFObject*) override {}
};

// A driver that does with a request what the test says, and a device that does nothing.
class ScriptedDriver final
    : public framework::ComObject<ScriptedDriver, framework::IDriverEntry, framework::IPnpCallback,
                                  framework::IPnpCallbackHardware,
                                  framework::IRequestCallbackCancel,
                                  framework::IQueueCallbackDeviceIoControl> {
 public:
  using Script = std::function<void(IWDFIoRequest&, ScriptedDriver&)>;
  explicit ScriptedDriver(Script script) : script_(std::move(script)) {}

  HRESULT ZELTA_STDMETHODCALLTYPE OnInitialize(framework::IWDFDriver*) override {
    return framework::kOk;
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnDeviceAdd(framework::IWDFDriver* driver,
                                              framework::IWDFDeviceInitialize* init) override {
    ComPtr<framework::IWDFDevice> device;
    return driver->CreateDevice(init, static_cast<framework::IPnpCallback*>(this), device.put());
  }
  void ZELTA_STDMETHODCALLTYPE OnDeinitialize(framework::IWDFDriver*) override {}
  HRESULT ZELTA_STDMETHODCALLTYPE OnPrepareHardware(framework::IWDFDevice* device) override {
    ComPtr<framework::IWDFIoQueue> queue;
    return device->CreateIoQueue(static_cast<framework::IPnpCallback*>(this), 1,
                                 framework::kDispatchParallel, 0, 1, queue.put());
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnReleaseHardware(framework::IWDFDevice*) override {
    return framework::kOk;
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnD0Entry(framework::IWDFDevice*, framework::EnumValue) override {
    return framework::kOk;
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnD0Exit(framework::IWDFDevice*, framework::EnumValue) override {
    return framework::kOk;
  }
  void ZELTA_STDMETHODCALLTYPE OnSurpriseRemoval(framework::IWDFDevice*) override {}
  HRESULT ZELTA_STDMETHODCALLTYPE OnQueryRemove(framework::IWDFDevice*) override {
    return framework::kOk;
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnQueryStop(framework::IWDFDevice*) override {
    return framework::kOk;
  }
  void ZELTA_STDMETHODCALLTYPE OnCancel(IWDFIoRequest* request) override {
    request->CompleteWithInformation(1, 0);
  }
  void ZELTA_STDMETHODCALLTYPE OnDeviceIoControl(framework::IWDFIoQueue*, IWDFIoRequest* request,
                                                 framework::ULONG, framework::SIZE_T,
                                                 framework::SIZE_T) override {
    script_(*request, *this);
  }

 private:
  const Script script_;
};

// What the framework complains about after one request.
std::vector<std::string> complaintsAbout(ScriptedDriver::Script script) {
  RecordingFramework framework(ComPtr<framework::IDriverEntry>::adopt(
      framework::createObject<ScriptedDriver>(std::move(script))));
  EXPECT_TRUE(framework.bringUp());
  framework.dispatch({1, std::vector<std::uint8_t>(4), 4}).cancel();
  framework.takeDown();
  return framework.complaints();
}

TEST(RecordingFrameworkTest, GoodDriverIsNotComplainedAbout) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver&) {
                auto* cleanup = framework::createObject<Cleanup>();
                request.AssignContext(cleanup, nullptr);
                cleanup->Release();
                {
                  ComPtr<framework::IWDFMemory> memory;
                  request.GetOutputMemory(memory.put());
                  memory->CopyFromBuffer(0, "abc", 3);
                }
                request.CompleteWithInformation(framework::kOk, 3);
              }),
              IsEmpty());
}

TEST(RecordingFrameworkTest, MarkedRequestThatIsCancelledIsNotComplainedAbout) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver& driver) {
                request.MarkCancelable(&driver);
              }),
              IsEmpty());
}

TEST(RecordingFrameworkTest, SecondCompletionIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver&) {
                const ComPtr<IWDFIoRequest> keep(&request);
                request.Complete(framework::kOk);
                request.Complete(framework::kOk);
              }),
              ElementsAre("request Complete was called after the request's completion",
                          "request completed 2 times"));
}

TEST(RecordingFrameworkTest, MissingCompletionIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest&, ScriptedDriver&) {}),
              ElementsAre("request completed 0 times"));
}

TEST(RecordingFrameworkTest, CallAfterCompletionIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver&) {
                request.Complete(framework::kOk);
                ComPtr<framework::IWDFFile> file;
                request.GetFileObject(file.put());
              }),
              Contains("request GetFileObject was called after the request's completion"));
}

TEST(RecordingFrameworkTest, CallAfterDeletionIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver&) {
                request.Complete(framework::kOk);
                request.AddRef();
                request.Release();
              }),
              Contains("request was deleted, and then AddRef called"));
}

TEST(RecordingFrameworkTest, MemoryUsedAfterCompletionAndNotGivenBackIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver&) {
                framework::IWDFMemory* memory = nullptr;
                request.GetInputMemory(&memory);
                request.Complete(framework::kOk);
                memory->GetSize();
              }),
              ElementsAre("memory GetSize was called after the request's completion",
                          "request with 1 references left"));
}

TEST(RecordingFrameworkTest, RequestReferenceNotGivenBackIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver&) {
                auto* cleanup = framework::createObject<Cleanup>();
                request.AssignContext(cleanup, nullptr);
                cleanup->Release();
                request.AddRef();
                request.Complete(framework::kOk);
              }),
              ElementsAre("request with 1 references left", "context cleaned 0 times"));
}

TEST(RecordingFrameworkTest, ReleaseTooManyIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver&) {
                request.Release();
                request.AddRef();
                request.Complete(framework::kOk);
              }),
              Contains("request was released too often"));
}

TEST(RecordingFrameworkTest, CompletionOfAMarkedRequestIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver& driver) {
                request.MarkCancelable(&driver);
                request.Complete(framework::kOk);
              }),
              ElementsAre("request was completed while it was marked cancelable"));
}

TEST(RecordingFrameworkTest, OperationThatNobodyNeedsIsTold) {
  EXPECT_THAT(complaintsAbout([](IWDFIoRequest& request, ScriptedDriver&) {
                request.ForwardToIoQueue(nullptr);
                request.Complete(framework::kOk);
              }),
              ElementsAre("request does not expect ForwardToIoQueue"));
}

TEST(RecordingFrameworkTest, UnmarkFailsOnceTheRequestWasHandedToItsCallback) {
  HRESULT before = 0;
  HRESULT after = 0;
  Violations violations;
  RecordingRequest request(violations, RequestParts{1, {}, {}});
  class Callback final : public framework::ComObject<Callback, framework::IRequestCallbackCancel> {
   public:
    explicit Callback(HRESULT* unmarked) : unmarked_(unmarked) {}
    void ZELTA_STDMETHODCALLTYPE OnCancel(IWDFIoRequest* cancelled) override {
      *unmarked_ = cancelled->UnmarkCancelable();
      cancelled->Complete(framework::kOk);
    }

   private:
    HRESULT* unmarked_;
  };
  const auto callback = ComPtr<Callback>::adopt(framework::createObject<Callback>(&after));
  request.MarkCancelable(callback.get());
  before = request.UnmarkCancelable();
  request.MarkCancelable(callback.get());
  request.cancel();
  EXPECT_EQ(before, framework::kOk);
  EXPECT_EQ(after, framework::hresult(0x800704C7));
  EXPECT_EQ(request.cancelCallbacks(), 1);
  EXPECT_THAT(violations.all(), IsEmpty());
}

}  // namespace
}  // namespace zelta::test
