// A driver host without a driver: readers whose presence requests wait, and whose other I/O
// controls are answered, as the test says.
//
// A `FakeReader` is shared by the host and the test and outlives both the files and the host. Any
// thread may call. Waits that are not fulfilled within 30 seconds give null or false.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "contract/bytes.h"
#include "host/driver_host.h"
#include "platform/sync/sync.h"

namespace zelta::test {

// A request that waits, cancelable, until the test completes it.
class FakeOperation final : public host::IoOperation {
 public:
  explicit FakeOperation(host::File::Completion completion) : completion_(std::move(completion)) {}

  bool wait(std::chrono::milliseconds limit) override;
  bool completed() const override;
  void cancel() override;
  const host::IoResult& result() const override { return result_; }

  // Runs the completion callback on this thread, unless it is completed already.
  void complete(framework::HRESULT status);
  bool cancelled() const { return cancelled_; }

 private:
  const host::File::Completion completion_;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> completing_{false};
  mutable platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool completed_ ZELTA_GUARDED_BY(mutex_) = false;
  host::IoResult result_;
};

class FakeReader final : public std::enable_shared_from_this<FakeReader> {
 public:
  static constexpr std::chrono::seconds kLimit{30};

  struct Request {
    std::uint32_t code = 0;
    Bytes input;
    std::size_t outputCapacity = 0;
  };
  // Runs on the caller's thread and may block.
  using Answer = std::function<host::IoResult(const Request&)>;

  // --- The test's side ---

  // The card, with the driver's completions.
  void insertCard();
  void removeCard(framework::HRESULT status = framework::kOk);
  // Whether presence requests of this code stay in their dispatch callback.
  void holdDispatch(std::uint32_t code, bool held);
  // The next presence requests of this code are completed with these before `submit` returns; later
  // ones depend on the card.
  void completeNext(std::uint32_t code, std::vector<framework::HRESULT> statuses);
  // The same for all later requests, until `completeNext`.
  void completeAll(std::uint32_t code, framework::HRESULT status);

  // How other requests of this code end; by default with success and no output.
  void answer(std::uint32_t code, Answer answer);
  void answerWith(std::uint32_t code, const host::IoResult& result) {
    answer(code, [result](const Request&) { return result; });
  }
  // The answers to SERVER_RESULT: one list for each bring-up, beginning with the present one. The
  // last list and the last answer of a list repeat. An empty list, the default, is "not supported".
  using ServerResults = std::vector<std::vector<std::uint32_t>>;
  void setServerResults(ServerResults results);
  // Waits until SERVER_RESULT has been asked for.
  bool waitForServerQuestion(std::chrono::milliseconds limit = kLimit);

  // The newest request of this code, as soon as one waits.
  std::shared_ptr<FakeOperation> waitForWaiting(std::uint32_t code);
  // Waits until `count` requests of this code have been made.
  bool waitForCount(std::uint32_t code, std::size_t count);
  std::size_t count(std::uint32_t code) const { return requests(code).size(); }
  std::vector<Request> requests(std::uint32_t code) const;

  // --- The host's side ---

  std::shared_ptr<host::File> open();
  void bringUp();
  // Completes waiting requests as cancelled and waits for answers in progress. The device is then
  // gone.
  void takeDown();

  // `bringUp` is the bring-up that the file belongs to.
  host::IoResult control(const Request& request, unsigned bringUp);
  std::shared_ptr<host::IoOperation> submit(const Request& request, unsigned bringUp,
                                            host::File::Completion completion);

 private:
  struct Submitted {
    std::uint32_t code = 0;
    std::shared_ptr<FakeOperation> operation;
  };
  // How presence requests of one code are treated.
  struct Presence {
    bool held = false;
    std::deque<framework::HRESULT> next;
    std::optional<framework::HRESULT> all;
  };

  void setCard(bool in, std::uint32_t completedCode, framework::HRESULT status)
      ZELTA_EXCLUDES(mutex_);
  template <typename Predicate>
  bool waitUntil(std::chrono::milliseconds limit, Predicate predicate) ZELTA_EXCLUDES(mutex_) {
    platform::MutexLock lock(mutex_);
    return changed_.waitFor(lock, limit, predicate);
  }
  std::shared_ptr<FakeOperation> newestWaiting(std::uint32_t code) const ZELTA_REQUIRES(mutex_);
  // The status that completes a presence request at once; none: it waits.
  std::optional<framework::HRESULT> presenceStatus(std::uint32_t code, bool gone)
      ZELTA_REQUIRES(mutex_);
  bool isGone(unsigned bringUp) const ZELTA_REQUIRES(mutex_) {
    return gone_ || bringUp != bringUp_;
  }
  host::IoResult answerServerResult() ZELTA_REQUIRES(mutex_);

  mutable platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool cardIn_ ZELTA_GUARDED_BY(mutex_) = false;
  bool gone_ ZELTA_GUARDED_BY(mutex_) = false;
  std::size_t answering_ ZELTA_GUARDED_BY(mutex_) = 0;
  unsigned bringUp_ ZELTA_GUARDED_BY(mutex_) = 0;
  ServerResults serverResults_ ZELTA_GUARDED_BY(mutex_);
  std::size_t serverQuestions_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::map<std::uint32_t, Presence> presence_ ZELTA_GUARDED_BY(mutex_);
  std::map<std::uint32_t, Answer> answers_ ZELTA_GUARDED_BY(mutex_);
  std::vector<Request> requests_ ZELTA_GUARDED_BY(mutex_);
  std::vector<Submitted> submitted_ ZELTA_GUARDED_BY(mutex_);
};

// Records the hosts that a test loads, and sets their failures.
struct FakeHostRecord {
  std::vector<std::string> loaded;  // paths
  std::atomic<int> broughtUp{0};
  std::atomic<int> takenDown{0};
  std::atomic<int> destroyed{0};
  std::string loadFailure;                              // not empty: `load` throws it
  std::deque<std::string> bringUpFailures;              // for the next bring-ups; empty: no failure
  std::function<void(const std::string&)> driverError;  // the latest host's
};

class FakeDriverHost final : public host::DriverHost {
 public:
  using Readers = std::map<std::wstring, std::shared_ptr<FakeReader>>;  // by interface name

  // Throws HostError if the record says so.
  static std::unique_ptr<host::DriverHost> load(const std::string& modulePath,
                                                host::HostOptions options,
                                                std::shared_ptr<FakeHostRecord> record,
                                                Readers readers);

  FakeDriverHost(std::shared_ptr<FakeHostRecord> record, Readers readers)
      : record_(std::move(record)), readers_(std::move(readers)) {}
  ~FakeDriverHost() override;

  void bringUp() override;
  void tearDown() noexcept override;
  bool unload() override { return true; }
  std::shared_ptr<host::File> open(const std::wstring& name) override;
  std::vector<std::wstring> interfaces() const override { return {}; }  // nobody asks

 private:
  const std::shared_ptr<FakeHostRecord> record_;
  const Readers readers_;
  bool up_ = false;
};

// A completed request's result.
host::IoResult succeededWith(Bytes output);
host::IoResult failedWith(framework::HRESULT status);

}  // namespace zelta::test
