// A request as the driver's logic sees it, made of the framework's double: by the framework's rules
// it is completed exactly once, its buffers' holders released before, and not touched afterwards
// except by the release of a reference taken before. Fails the running test at the end if the
// driver has broken a rule.
//
// Any thread may call. The object must outlive its completion, as a test's own does.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>

#include "diagnostics/traced_lock.h"
#include "driver/request/framework_request.h"
#include "tests/doubles/framework/fake_wdf_request.h"
#include "tests/doubles/request/fake_reader_device.h"

namespace zelta::test {

// Statuses of a completed request, as `FakeRequest::status` returns them.
inline constexpr std::uint32_t kSucceeded = 0;
inline constexpr std::uint32_t kCancelled = 0x800704C7;
inline constexpr std::uint32_t kNoMedia = 0xC0000178;
inline constexpr std::uint32_t kNotSupported = 0x80070032;

class FakeRequest final : public IoRequest, private framework::IRequestCallbackCancel {
 public:
  // Without buffers and without a file.
  explicit FakeRequest(FakeReaderDevice& device) : device_(device) {}
  // Fails the running test if references are still out.
  ~FakeRequest() override {
    EXPECT_EQ(wdf_.driversReferencesInAll(), 0) << "references not released";
    EXPECT_THAT(violations_.all(), testing::IsEmpty());
  }

  // Call before the request is handed over.
  FakeRequest& withInput(Bytes bytes) {
    wdf_.setInput(std::move(bytes));
    return *this;
  }
  FakeRequest& withInput(std::uint32_t number) { return withInput(numberBytes(number)); }
  FakeRequest& withOutput(std::size_t capacity) {
    wdf_.setOutput(Bytes(capacity, 0xCC));
    return *this;
  }
  // Checks with each completion that the device lock is held; costs a thread each.
  FakeRequest& checkingLock() {
    checksLock_ = true;
    return *this;
  }
  // Makes the request's holders fail for lack of memory.
  FakeRequest& failingHolders() {
    failsHolders_ = true;
    return *this;
  }

  // The framework's cancellation. If the request waits, marked, the cancel callback completes it
  // here and now; if it is not marked yet, as soon as it is. Nothing happens to a request that is
  // completed or was unmarked.
  void cancel() { wdf_.cancel(); }
  // Like `cancel` for a waiting request, but leaves the callback to the test.
  void beginCancel() {
    leavesCallback_ = true;
    wdf_.cancel();
  }

  // Waits end with false after 30 seconds.
  bool waitMarked() const { return wdf_.waitMarked(kLimit); }
  // Also until the references taken for the completion are released, so that the request may be
  // destroyed.
  bool waitCompleted() const { return wdf_.waitCompleted(kLimit); }
  bool completed() const { return wdf_.completed(); }
  bool markedCancelable() const { return wdf_.markedCancelable(); }
  // The status of the completion.
  std::uint32_t status() const { return static_cast<std::uint32_t>(wdf_.status()); }
  // The byte count; none if the completion set none.
  std::optional<std::size_t> information() const { return wdf_.information(); }
  // The whole output buffer with what was written into it.
  Bytes output() const { return wdf_.outputSize() == 0 ? Bytes() : wdf_.output(); }
  bool outputWritten() const { return wdf_.outputWritten(); }
  // The written bytes up to the byte count; empty if there are none.
  Bytes answer() const {
    if (!outputWritten()) return {};
    Bytes bytes = output();
    bytes.resize(information().value_or(0));
    return bytes;
  }

  void completeWithInformation(framework::HRESULT status, std::size_t information) override {
    wdf_.CompleteWithInformation(status, information);
  }
  void complete(framework::HRESULT status) override { wdf_.Complete(status); }
  Held<IoMemory> inputMemory() override {
    return hold(input_, &framework::IWDFIoRequest::GetInputMemory);
  }
  Held<IoMemory> outputMemory() override {
    return hold(output_, &framework::IWDFIoRequest::GetOutputMemory);
  }
  Held<IoFile> fileObject() override { return nullptr; }
  void markCancelable(framework::IRequestCallbackCancel* callback) override {
    EXPECT_NE(callback, nullptr);
    wdf_.MarkCancelable(this);
  }
  framework::HRESULT unmarkCancelable() override {
    EXPECT_GT(wdf_.driversReferences(), 0) << "unmarked by somebody who holds no reference";
    return wdf_.UnmarkCancelable();
  }
  void addRef() override { wdf_.AddRef(); }
  void release() override { wdf_.Release(); }

 private:
  static constexpr std::chrono::seconds kLimit{30};

  // The cancel callback that the framework's double knows.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID, void**) override {
    return framework::kNoInterface;
  }
  framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override { return 1; }
  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override { return 1; }
  void ZELTA_STDMETHODCALLTYPE OnCancel(framework::IWDFIoRequest*) override {
    if (leavesCallback_) return;
    const TracedLock lock("FakeRequest::cancel", device_.deviceLock(), __LINE__);
    if (device_.onCancel) device_.onCancel(*this);
  }

  RequestSetup setup() {
    RequestSetup setup;
    setup.fileName.reset();
    setup.onComplete = [this] {
      if (checksLock_) {
        EXPECT_TRUE(device_.lockIsHeld()) << "completed without the device lock";
      }
      device_.noteCompletion(*this);
    };
    return setup;
  }

  Held<IoMemory> hold(
      FrameworkMemory& memory,
      void (ZELTA_STDMETHODCALLTYPE framework::IWDFIoRequest::*get)(framework::IWDFMemory**)) {
    if (failsHolders_) throw std::bad_alloc();
    (wdf_.*get)(memory.reference().put());
    return Held<IoMemory>(memory.reference() ? &memory : nullptr);
  }

  FakeReaderDevice& device_;
  bool checksLock_ = false;
  bool failsHolders_ = false;
  bool leavesCallback_ = false;
  Violations violations_;
  FakeWdfRequest wdf_{violations_, setup()};
  FrameworkMemory input_;
  FrameworkMemory output_;
};

}  // namespace zelta::test
