// A driver host without a driver: one reader whose presence requests wait, and whose other I/O
// controls are answered, as the test says.
//
// `FakeReader` is shared by the host and the test and outlives both the files and the host. Any
// thread may call. Waits that are not fulfilled within 30 seconds give null or false.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

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

  // Runs the completion callback on this thread; false where it is completed already.
  bool complete(framework::HRESULT status) { return complete({status, 0, {}}); }
  bool complete(host::IoResult result);
  bool cancelled() const;

 private:
  const host::File::Completion completion_;
  mutable platform::Mutex mutex_;
  mutable platform::ConditionVariable changed_;
  bool completing_ ZELTA_GUARDED_BY(mutex_) = false;
  bool completed_ ZELTA_GUARDED_BY(mutex_) = false;
  bool cancelled_ ZELTA_GUARDED_BY(mutex_) = false;
  host::IoResult result_;
};

class FakeReader final : public std::enable_shared_from_this<FakeReader> {
 public:
  static constexpr std::chrono::seconds kLimit{30};

  struct Request {
    std::uint32_t code = 0;
    std::vector<std::uint8_t> input;
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
  // The next submissions of this code are completed with these, before `submit` returns.
  void completeNext(std::uint32_t code, std::vector<framework::HRESULT> statuses);
  // The same for all that follow, until `completeNext` or `none`.
  void completeAll(std::uint32_t code, framework::HRESULT status);

  // How requests of this code end that are no presence requests; without: with success and no
  // output.
  void answer(std::uint32_t code, Answer answer);
  // What the question for the server thread is answered with: for each bring-up in turn, the
  // present one first and the last for good, a list of answers in turn, the last for good. An empty
  // list: "not supported", which is also the default.
  using ServerResults = std::vector<std::vector<std::uint32_t>>;
  void setServerResults(ServerResults results);
  // Waits until it has been asked.
  bool waitForServerQuestion(std::chrono::milliseconds limit = kLimit);

  // The newest request of this code, as soon as one has been submitted and is not completed.
  std::shared_ptr<FakeOperation> waitForWaiting(std::uint32_t code);
  // Waits until so many requests of this code have been submitted or sent.
  bool waitForCount(std::uint32_t code, std::size_t count);
  std::size_t count(std::uint32_t code) const;
  std::vector<Request> requests(std::uint32_t code) const;

  // --- The host's side ---

  std::shared_ptr<host::File> open();
  void bringUp();
  // Completes what waits as cancelled, waits for answers under way; afterwards the device is gone.
  void takeDown();

  // `bringUp`: the one that the file belongs to.
  host::IoResult control(const Request& request, unsigned bringUp);
  std::shared_ptr<host::IoOperation> submit(const Request& request, unsigned bringUp,
                                            host::File::Completion completion);

 private:
  // Also where an answer throws for want of memory.
  struct AnswerEnd {
    FakeReader& reader;
    ~AnswerEnd() { reader.endAnswer(); }
  };

  void endAnswer() ZELTA_EXCLUDES(mutex_);
  std::shared_ptr<FakeOperation> newestWaiting(std::uint32_t code) const ZELTA_REQUIRES(mutex_);
  // What a presence request is completed with at once; none: it waits.
  std::optional<framework::HRESULT> presenceStatus(std::uint32_t code, bool gone)
      ZELTA_REQUIRES(mutex_);
  bool isGone(unsigned bringUp) const ZELTA_REQUIRES(mutex_) {
    return gone_ || bringUp != bringUp_;
  }
  host::IoResult answerServerResult() ZELTA_REQUIRES(mutex_);
  void completeWaiting(std::uint32_t code, framework::HRESULT status) ZELTA_EXCLUDES(mutex_);

  struct Submitted {
    std::uint32_t code = 0;
    std::shared_ptr<FakeOperation> operation;
  };

  mutable platform::Mutex mutex_;
  mutable platform::ConditionVariable changed_;
  bool cardIn_ ZELTA_GUARDED_BY(mutex_) = false;
  bool gone_ ZELTA_GUARDED_BY(mutex_) = false;
  std::size_t answering_ ZELTA_GUARDED_BY(mutex_) = 0;
  unsigned bringUp_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::set<std::uint32_t> held_ ZELTA_GUARDED_BY(mutex_);
  ServerResults serverResults_ ZELTA_GUARDED_BY(mutex_);
  std::size_t serverQuestions_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::map<std::uint32_t, std::deque<framework::HRESULT>> next_ ZELTA_GUARDED_BY(mutex_);
  std::map<std::uint32_t, framework::HRESULT> all_ ZELTA_GUARDED_BY(mutex_);
  std::map<std::uint32_t, Answer> answers_ ZELTA_GUARDED_BY(mutex_);
  std::vector<Request> requests_ ZELTA_GUARDED_BY(mutex_);
  std::vector<Submitted> submitted_ ZELTA_GUARDED_BY(mutex_);
};

// What became of the hosts that a test's table had.
struct FakeHostRecord {
  std::vector<std::string> loaded;  // paths
  std::atomic<int> broughtUp{0};
  std::atomic<int> takenDown{0};
  std::atomic<int> destroyed{0};
  std::string loadFailure;                              // not empty: `load` throws it
  std::string bringUpFailure;                           // not empty: `bringUp` throws it
  std::deque<std::string> bringUpFailures;              // the next ones'; empty: it does not
  std::function<void(const std::string&)> driverError;  // as the latest host was given
};

class FakeDriverHost final : public host::DriverHost {
 public:
  // Throws HostError where the record says so. `readers`: by interface name.
  static std::unique_ptr<host::DriverHost> load(
      const std::string& modulePath, host::HostOptions options,
      std::shared_ptr<FakeHostRecord> record,
      std::map<std::wstring, std::shared_ptr<FakeReader>> readers);

  FakeDriverHost(std::shared_ptr<FakeHostRecord> record,
                 std::map<std::wstring, std::shared_ptr<FakeReader>> readers);
  ~FakeDriverHost() override;

  void bringUp() override;
  void tearDown() noexcept override;
  bool unload() override { return true; }
  std::shared_ptr<host::File> open(const std::wstring& name) override;
  std::vector<std::wstring> interfaces() const override;

 private:
  const std::shared_ptr<FakeHostRecord> record_;
  const std::map<std::wstring, std::shared_ptr<FakeReader>> readers_;
  bool up_ = false;
};

// A completed request's result.
host::IoResult succeededWith(std::vector<std::uint8_t> output);
host::IoResult failedWith(framework::HRESULT status);

}  // namespace zelta::test
