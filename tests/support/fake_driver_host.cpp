#include "tests/support/fake_driver_host.h"

#include <utility>

namespace zelta::test {

using framework::HRESULT;
using platform::MutexLock;

namespace {

constexpr std::uint32_t kIsPresent = 0x00310028;
constexpr std::uint32_t kIsAbsent = 0x0031002C;
constexpr HRESULT kCancelled = framework::hresult(0x800704C7);

class FakeFile final : public host::File {
 public:
  explicit FakeFile(std::shared_ptr<FakeReader> reader) : reader_(std::move(reader)) {}

  host::IoResult control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                         std::size_t outputCapacity, std::chrono::milliseconds) override {
    return reader_->control({code, input, outputCapacity});
  }
  std::shared_ptr<host::IoOperation> submit(std::uint32_t code,
                                            const std::vector<std::uint8_t>& input,
                                            std::size_t outputCapacity,
                                            Completion completion) override {
    return reader_->submit({code, input, outputCapacity}, std::move(completion));
  }

 private:
  const std::shared_ptr<FakeReader> reader_;
};

}  // namespace

host::IoResult succeededWith(std::vector<std::uint8_t> output) {
  const std::size_t size = output.size();
  return {framework::kOk, size, std::move(output)};
}

host::IoResult failedWith(HRESULT status) { return {status, 0, {}}; }

// --- FakeOperation ---

FakeOperation::FakeOperation(host::File::Completion completion, Kind kind)
    : completion_(std::move(completion)), kind_(kind), dispatched_(kind == Kind::kWaiting) {}

bool FakeOperation::wait(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, limit,
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return completed_; });
}

bool FakeOperation::waitDispatched(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, limit,
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return dispatched_; });
}

bool FakeOperation::completed() const {
  const MutexLock lock(mutex_);
  return completed_;
}

void FakeOperation::cancel() {
  {
    const MutexLock lock(mutex_);
    cancelled_ = true;
  }
  if (kind_ != Kind::kExchanging) complete(kCancelled);
}

bool FakeOperation::cancelled() const {
  const MutexLock lock(mutex_);
  return cancelled_;
}

void FakeOperation::dispatch() {
  const MutexLock lock(mutex_);
  dispatched_ = true;
  changed_.notifyAll();
}

bool FakeOperation::complete(host::IoResult result) {
  {
    const MutexLock lock(mutex_);
    if (completing_) return false;
    completing_ = true;
    result_ = std::move(result);
  }
  if (completion_) completion_(result_);
  const MutexLock lock(mutex_);
  completed_ = true;
  dispatched_ = true;
  changed_.notifyAll();
  return true;
}

// --- FakeReader ---

void FakeReader::insertCard() {
  {
    const MutexLock lock(mutex_);
    cardIn_ = true;
  }
  completeWaiting(kIsPresent, framework::kOk);
}

void FakeReader::removeCard() {
  {
    const MutexLock lock(mutex_);
    cardIn_ = false;
  }
  completeWaiting(kIsAbsent, framework::kOk);
}

void FakeReader::setPresence(std::uint32_t code, Presence presence) {
  const MutexLock lock(mutex_);
  presence_[code] = presence;
}

void FakeReader::completeNext(std::uint32_t code, std::vector<HRESULT> statuses) {
  const MutexLock lock(mutex_);
  all_.erase(code);
  next_[code].assign(statuses.begin(), statuses.end());
}

void FakeReader::completeAll(std::uint32_t code, HRESULT status) {
  const MutexLock lock(mutex_);
  all_[code] = status;
}

void FakeReader::answer(std::uint32_t code, Answer answer) {
  const MutexLock lock(mutex_);
  answers_[code] = std::move(answer);
  held_.erase(code);
}

void FakeReader::hold(std::uint32_t code) {
  const MutexLock lock(mutex_);
  held_.insert(code);
}

std::shared_ptr<FakeOperation> FakeReader::newestWaiting(std::uint32_t code) const {
  for (auto each = submitted_.rbegin(); each != submitted_.rend(); ++each) {
    if (each->code == code && !each->operation->completed()) return each->operation;
  }
  return nullptr;
}

std::shared_ptr<FakeOperation> FakeReader::waitForWaiting(std::uint32_t code) {
  MutexLock lock(mutex_);
  std::shared_ptr<FakeOperation> found;
  changed_.waitFor(lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    found = newestWaiting(code);
    return found != nullptr;
  });
  return found;
}

bool FakeReader::waitForCount(std::uint32_t code, std::size_t count) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    std::size_t made = 0;
    for (const Request& request : requests_) made += request.code == code ? 1 : 0;
    return made >= count;
  });
}

std::size_t FakeReader::count(std::uint32_t code) const { return requests(code).size(); }

std::vector<FakeReader::Request> FakeReader::requests(std::uint32_t code) const {
  const MutexLock lock(mutex_);
  std::vector<Request> found;
  for (const Request& request : requests_) {
    if (request.code == code) found.push_back(request);
  }
  return found;
}

std::shared_ptr<host::File> FakeReader::open() {
  return std::make_shared<FakeFile>(shared_from_this());
}

void FakeReader::bringUp() {
  const MutexLock lock(mutex_);
  gone_ = false;
}

void FakeReader::takeDown() {
  MutexLock lock(mutex_);
  gone_ = true;
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return answering_ == 0; });
  for (std::size_t i = 0; i < submitted_.size(); ++i) {
    const std::shared_ptr<FakeOperation> operation = submitted_[i].operation;
    lock.unlock();
    operation->complete(kCancelled);
    lock.lock();
  }
}

host::IoResult FakeReader::control(const Request& request) {
  Answer answer;
  {
    const MutexLock lock(mutex_);
    if (gone_) return failedWith(host::kDeviceGone);
    const auto found = answers_.find(request.code);
    if (found != answers_.end()) answer = found->second;
    requests_.push_back(request);
    ++answering_;
    changed_.notifyAll();
  }
  const AnswerEnd end{*this};
  return answer ? answer(request) : succeededWith({});
}

void FakeReader::endAnswer() {
  const MutexLock lock(mutex_);
  --answering_;
  changed_.notifyAll();
}

std::shared_ptr<host::IoOperation> FakeReader::submit(const Request& request,
                                                      host::File::Completion completion) {
  if (request.code == kIsPresent || request.code == kIsAbsent) {
    return submitPresence(request, std::move(completion));
  }
  std::shared_ptr<FakeOperation> operation;
  {
    const MutexLock lock(mutex_);
    if (!gone_ && held_.count(request.code) != 0) {
      requests_.push_back(request);
      operation = addOperation(request, std::move(completion), FakeOperation::Kind::kExchanging);
      changed_.notifyAll();
      return operation;
    }
    operation =
        std::make_shared<FakeOperation>(std::move(completion), FakeOperation::Kind::kExchanging);
  }
  operation->complete(control(request));
  return operation;
}

std::shared_ptr<FakeOperation> FakeReader::addOperation(const Request& request,
                                                        host::File::Completion completion,
                                                        FakeOperation::Kind kind) {
  auto operation = std::make_shared<FakeOperation>(std::move(completion), kind);
  submitted_.push_back({request.code, operation});
  return operation;
}

std::optional<HRESULT> FakeReader::presenceStatus(std::uint32_t code) {
  std::deque<HRESULT>& next = next_[code];
  std::optional<HRESULT> scripted;
  if (!next.empty()) {
    scripted = next.front();
    next.pop_front();
  }
  if (gone_) return host::kDeviceGone;
  if (all_.count(code) != 0) return all_[code];
  if (scripted) return scripted;
  if (presence_[code] == Presence::kHoldUndispatched) return std::nullopt;
  const bool fulfilled = code == kIsPresent ? cardIn_ : !cardIn_;
  return fulfilled ? std::optional<HRESULT>(framework::kOk) : std::nullopt;
}

std::shared_ptr<host::IoOperation> FakeReader::submitPresence(const Request& request,
                                                              host::File::Completion completion) {
  MutexLock lock(mutex_);
  const bool held = presence_[request.code] == Presence::kHoldUndispatched;
  requests_.push_back(request);
  const auto operation =
      addOperation(request, std::move(completion),
                   held ? FakeOperation::Kind::kUndispatched : FakeOperation::Kind::kWaiting);
  const std::optional<HRESULT> status = presenceStatus(request.code);
  if (!status) changed_.notifyAll();
  lock.unlock();
  if (!status) return operation;
  operation->complete(*status);
  const MutexLock again(mutex_);
  changed_.notifyAll();
  return operation;
}

void FakeReader::completeWaiting(std::uint32_t code, HRESULT status) {
  std::shared_ptr<FakeOperation> waiting;
  {
    const MutexLock lock(mutex_);
    waiting = newestWaiting(code);
  }
  if (waiting) waiting->complete(status);
  const MutexLock lock(mutex_);
  changed_.notifyAll();
}

// --- FakeDriverHost ---

std::unique_ptr<host::DriverHost> FakeDriverHost::load(
    const std::string& modulePath, host::HostOptions options,
    std::shared_ptr<FakeHostRecord> record,
    std::map<std::wstring, std::shared_ptr<FakeReader>> readers) {
  if (!record->loadFailure.empty()) throw host::HostError(record->loadFailure);
  record->loaded.push_back(modulePath);
  record->driverError = std::move(options.driverError);
  return std::make_unique<FakeDriverHost>(std::move(record), std::move(readers));
}

FakeDriverHost::FakeDriverHost(std::shared_ptr<FakeHostRecord> record,
                               std::map<std::wstring, std::shared_ptr<FakeReader>> readers)
    : record_(std::move(record)), readers_(std::move(readers)) {}

FakeDriverHost::~FakeDriverHost() {
  tearDown();
  ++record_->destroyed;
}

void FakeDriverHost::bringUp() {
  if (!record_->bringUpFailure.empty()) throw host::HostError(record_->bringUpFailure);
  ++record_->broughtUp;
  up_ = true;
  for (const auto& [name, reader] : readers_) reader->bringUp();
}

void FakeDriverHost::tearDown() noexcept {
  if (!up_) return;
  up_ = false;
  ++record_->takenDown;
  for (const auto& [name, reader] : readers_) reader->takeDown();
}

std::shared_ptr<host::File> FakeDriverHost::open(const std::wstring& name) {
  const auto found = readers_.find(name);
  return up_ && found != readers_.end() ? found->second->open() : nullptr;
}

std::vector<std::wstring> FakeDriverHost::interfaces() const {
  std::vector<std::wstring> names;
  if (!up_) return names;
  for (const auto& [name, reader] : readers_) names.push_back(name);
  return names;
}

}  // namespace zelta::test
