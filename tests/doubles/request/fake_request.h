// A request without the framework. It keeps the framework's rules and fails the running test if the
// driver breaks one: completed exactly once, its buffers' holders released before, and not touched
// afterwards but by the release of a reference taken before.
//
// Any thread may call. The object must outlive its completion, as a test's own does.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "contract/bytes.h"
#include "driver/request/io_request.h"
#include "tests/doubles/request/fake_reader_device.h"

namespace zelta::test {

// What a request was completed with, as `FakeRequest::status` gives it.
inline constexpr std::uint32_t kSucceeded = 0;
inline constexpr std::uint32_t kCancelled = 0x800704C7;
inline constexpr std::uint32_t kNoMedia = 0xC0000178;
inline constexpr std::uint32_t kNotSupported = 0x80070032;

class FakeRequest final : public IoRequest {
 public:
  // Without buffers and without a file.
  explicit FakeRequest(FakeReaderDevice& device) : device_(device) {}
  // Fails the running test if references are still out.
  ~FakeRequest() override;

  // Before the request is handed over.
  FakeRequest& withInput(Bytes bytes);
  FakeRequest& withInput(std::uint32_t number);  // four bytes, little-endian
  FakeRequest& withOutput(std::size_t capacity);
  // Checks with each completion that the device lock is held; costs a thread each.
  FakeRequest& checkingLock();
  // The request's holders cannot be made: no memory.
  FakeRequest& failingHolders();

  // The framework's cancellation. If the request waits, marked, the cancel callback completes it
  // here and now; if it is not marked yet, as soon as it is. Nothing happens to a request that is
  // completed or was unmarked.
  void cancel();
  // As `cancel` for a request that waits, but leaves the callback to somebody else.
  void beginCancel();

  // Waits end with false after 30 seconds.
  bool waitMarked() const;
  // Also until the references taken for the completion are released, so that the request may be
  // destroyed.
  bool waitCompleted() const;
  bool completed() const;
  bool markedCancelable() const;
  // Of the completion.
  std::uint32_t status() const;
  // The byte count; none if the completion set none.
  std::optional<std::size_t> information() const;
  // The whole output buffer with what was written into it.
  Bytes output() const;
  bool outputWritten() const;
  // Of what was written, as many bytes as the byte count says; empty if nothing was.
  Bytes answer() const;

  void completeWithInformation(framework::HRESULT status, std::size_t information) override;
  void complete(framework::HRESULT status) override;
  Held<IoMemory> inputMemory() override;
  Held<IoMemory> outputMemory() override;
  Held<IoFile> fileObject() override;
  void markCancelable(framework::IRequestCallbackCancel* callback) override;
  framework::HRESULT unmarkCancelable() override;
  void addRef() override;
  void release() override;

 private:
  class Memory;

  void touch(const char* operation) const;  // with the mutex held
  template <typename Reached>
  bool waitUntil(Reached reached) const;
  void finish(framework::HRESULT status, std::optional<std::size_t> information);
  void runCancelCallback();
  Held<IoMemory> makeHolder(std::optional<Bytes>& buffer, bool output);

  FakeReaderDevice& device_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::optional<Bytes> input_;
  std::optional<Bytes> output_;
  std::shared_ptr<Memory> inputMemory_;  // what a holder was given last
  std::shared_ptr<Memory> outputMemory_;
  bool outputWritten_ = false;
  bool checksLock_ = false;
  bool failsHolders_ = false;
  int holders_ = 0;
  int references_ = 0;
  bool marked_ = false;
  bool wasMarked_ = false;
  bool cancelled_ = false;  // asked for
  bool completed_ = false;
  std::uint32_t status_ = 0;
  std::optional<std::size_t> information_;
};

}  // namespace zelta::test
