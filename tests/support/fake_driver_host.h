// A driver host without a driver: one reader whose presence requests wait, and whose other I/O
// controls are answered, as the test says.
//
// `FakeReader` is shared by the host and the test and outlives both the files and the host. Any
// thread may call. Waits that are not fulfilled within 30 seconds give null or false.
#pragma once

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
#include "platform/sync.h"

namespace zelta::test {

// A request that was submitted; answers of the test complete it.
class FakeOperation final : public host::IoOperation {
 public:
  enum class Kind {
    kUndispatched,  // cancelable
    kWaiting,       // in the driver, cancelable
    kExchanging,    // in the driver's exchange with the agent: a cancel is only noted
  };

  FakeOperation(host::File::Completion completion, Kind kind);

  bool wait(std::chrono::milliseconds limit) override;
  bool waitDispatched(std::chrono::milliseconds limit) override;
  bool completed() const override;
  void cancel() override;
  const host::IoResult& result() const override { return result_; }

  void dispatch();
  // Runs the completion callback on this thread; false where it is completed already.
  bool complete(framework::HRESULT status) { return complete({status, 0, {}}); }
  bool complete(host::IoResult result);
  bool cancelled() const;

 private:
  const host::File::Completion completion_;
  const Kind kind_;
  mutable platform::Mutex mutex_;
  mutable platform::ConditionVariable changed_;
  bool dispatched_ ZELTA_GUARDED_BY(mutex_);
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

  // What the driver does with a presence request of this code.
  enum class Presence {
    kByCard,            // completes it at once or lets it wait, as the card is in or out
    kHoldUndispatched,  // neither completes nor dispatches it until the test does
  };

  // --- The test's side ---

  // The card, with the driver's completions.
  void insertCard();
  void removeCard();
  void setPresence(std::uint32_t code, Presence presence);
  // The next submissions of this code are completed with these, before `submit` returns.
  void completeNext(std::uint32_t code, std::vector<framework::HRESULT> statuses);
  // The same for all that follow, until `completeNext` or `none`.
  void completeAll(std::uint32_t code, framework::HRESULT status);

  // How requests of this code end that are no presence requests; without: with success and no
  // output.
  void answer(std::uint32_t code, Answer answer);
  // They wait for the test to complete them, until `answer` is called.
  void hold(std::uint32_t code);

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

  host::IoResult control(const Request& request);
  std::shared_ptr<host::IoOperation> submit(const Request& request,
                                            host::File::Completion completion);

 private:
  // Also where an answer throws for want of memory.
  struct AnswerEnd {
    FakeReader& reader;
    ~AnswerEnd() { reader.endAnswer(); }
  };

  void endAnswer() ZELTA_EXCLUDES(mutex_);
  std::shared_ptr<FakeOperation> newestWaiting(std::uint32_t code) const ZELTA_REQUIRES(mutex_);
  std::shared_ptr<FakeOperation> addOperation(const Request& request,
                                              host::File::Completion completion,
                                              FakeOperation::Kind kind) ZELTA_REQUIRES(mutex_);
  // What a presence request is completed with at once; none: it waits.
  std::optional<framework::HRESULT> presenceStatus(std::uint32_t code) ZELTA_REQUIRES(mutex_);
  std::shared_ptr<host::IoOperation> submitPresence(const Request& request,
                                                    host::File::Completion completion);
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
  std::map<std::uint32_t, Presence> presence_ ZELTA_GUARDED_BY(mutex_);
  std::map<std::uint32_t, std::deque<framework::HRESULT>> next_ ZELTA_GUARDED_BY(mutex_);
  std::map<std::uint32_t, framework::HRESULT> all_ ZELTA_GUARDED_BY(mutex_);
  std::map<std::uint32_t, Answer> answers_ ZELTA_GUARDED_BY(mutex_);
  std::set<std::uint32_t> held_ ZELTA_GUARDED_BY(mutex_);
  std::vector<Request> requests_ ZELTA_GUARDED_BY(mutex_);
  std::vector<Submitted> submitted_ ZELTA_GUARDED_BY(mutex_);
};

// What became of the hosts that a test's table had.
struct FakeHostRecord {
  std::vector<std::string> loaded;  // paths
  int broughtUp = 0;
  int takenDown = 0;
  int destroyed = 0;
  std::string loadFailure;                              // not empty: `load` throws it
  std::string bringUpFailure;                           // not empty: `bringUp` throws it
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
