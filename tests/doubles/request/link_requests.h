// A reader's device and its requests without the framework: requests are kept waiting, cancelled
// and completed under the framework's rules, and remember what became of them.
//
// Any thread may call. A wait that is not fulfilled within 30 seconds gives false.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "driver/request/io_request.h"
#include "driver/request/reader_device.h"
#include "platform/sync/sync.h"

namespace zelta {
class Reader;
}

namespace zelta::test {

class LinkRequest;

class LinkDevice final : public ReaderDevice {
 public:
  LinkDevice();
  ~LinkDevice();

  // Throws std::runtime_error ("no lock") while it was told to.
  platform::CriticalSection& deviceLock() override;
  framework::HRESULT queryInterface(framework::REFIID iid, void** out) override;

  // The reader whose requests are cancelled; none: cancelled requests are left as they are.
  void setReader(Reader* reader);
  // Requests in the order of their completion.
  std::vector<const LinkRequest*> completed();
  // Whether every completion so far was made with the device lock held. Looked at only where
  // `watchLock` was called before: each look costs a thread.
  void watchLock() { watchesLock_ = true; }
  bool lockAlwaysHeld();
  void failLock(bool fail) { failsLock_ = fail; }

 private:
  friend class LinkRequest;
  class Callback;

  void noteCompletion(const LinkRequest& request);
  void cancel(LinkRequest& request);
  bool lockIsHeld();

  platform::CriticalSection lock_;
  bool watchesLock_ = false;
  std::atomic<bool> failsLock_{false};
  platform::Mutex mutex_;
  Reader* reader_ ZELTA_GUARDED_BY(mutex_) = nullptr;
  std::vector<const LinkRequest*> completed_ ZELTA_GUARDED_BY(mutex_);
  bool lockAlwaysHeld_ ZELTA_GUARDED_BY(mutex_) = true;
  Callback* callback_;
};

class LinkMemory final : public IoMemory {
 public:
  void* dataBuffer(std::size_t* size) override;
  framework::HRESULT copyFromBuffer(std::size_t offset, const void* source,
                                    std::size_t size) override;
  void release() noexcept override {}

  std::vector<std::uint8_t> bytes;
};

class LinkRequest final : public IoRequest {
 public:
  static constexpr std::chrono::seconds kLimit{30};

  explicit LinkRequest(LinkDevice& device, std::vector<std::uint8_t> input = {},
                       std::size_t outputSize = 4096);

  void completeWithInformation(framework::HRESULT status, std::size_t information) override;
  void complete(framework::HRESULT status) override;
  Held<IoMemory> inputMemory() override;
  Held<IoMemory> outputMemory() override;
  Held<IoFile> fileObject() override { return nullptr; }
  void markCancelable(framework::IRequestCallbackCancel* callback) override;
  framework::HRESULT unmarkCancelable() override;
  void addRef() override;
  void release() override;

  // The framework's cancellation: runs the cancel callback where the request is marked, at once or
  // as soon as it is marked; nothing happens to a request that is completed or was unmarked.
  void cancel();
  // Makes `unmarkCancelable` fail, as while a cancellation is under way, without running the
  // callback.
  void beginCancel();

  bool waitUntilMarked();
  bool waitForCompletion();
  // Only valid after a completion.
  framework::HRESULT status() const;
  std::size_t information() const;
  // Completed by `complete`, without a byte count.
  bool completedPlainly() const;
  std::vector<std::uint8_t> output() const;

  int completions() const;
  int references() const;  // taken and not given back

 private:
  void finish(framework::HRESULT status, std::size_t information, bool plain);

  LinkDevice& device_;
  LinkMemory input_;
  LinkMemory output_;
  mutable platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool marked_ ZELTA_GUARDED_BY(mutex_) = false;
  bool wasMarked_ ZELTA_GUARDED_BY(mutex_) = false;
  bool cancelRequested_ ZELTA_GUARDED_BY(mutex_) = false;
  bool cancelling_ ZELTA_GUARDED_BY(mutex_) = false;
  int completions_ ZELTA_GUARDED_BY(mutex_) = 0;
  int references_ ZELTA_GUARDED_BY(mutex_) = 0;
  framework::HRESULT status_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::size_t information_ ZELTA_GUARDED_BY(mutex_) = 0;
  bool plain_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta::test
