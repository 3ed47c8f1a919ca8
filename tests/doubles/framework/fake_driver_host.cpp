#include "tests/doubles/framework/fake_driver_host.h"

#include <algorithm>
#include <utility>

namespace zelta::test {

using framework::HRESULT;
using platform::MutexLock;

namespace {

constexpr std::uint32_t kIsPresent = 0x00310028;
constexpr std::uint32_t kIsAbsent = 0x0031002C;
constexpr std::uint32_t kGetAttribute = 0x00310008;
const std::vector<std::uint8_t> kServerResultTag{0x10, 0xA0, 0x07, 0x00};
constexpr HRESULT kNotSupported = framework::hresult(0x80070032);
constexpr HRESULT kCancelled = framework::hresult(0x800704C7);

std::vector<std::uint8_t> joined(const host::InputParts& parts) {
  std::vector<std::uint8_t> bytes;
  for (const host::ConstBytes& part : {parts.header, parts.body}) {
    bytes.insert(bytes.end(), part.data, part.data + part.size);
  }
  return bytes;
}

void split(const std::vector<std::uint8_t>& bytes, const host::OutputParts& parts) {
  std::size_t done = 0;
  for (const host::MutableBytes& part : {parts.header, parts.body}) {
    const std::size_t size = std::min(bytes.size() - done, part.size);
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(done), size, part.data);
    done += size;
  }
}

class FakeFile final : public host::File {
 public:
  FakeFile(std::shared_ptr<FakeReader> reader, unsigned bringUp)
      : reader_(std::move(reader)), bringUp_(bringUp) {}

  host::IoResult control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                         std::size_t outputCapacity, std::chrono::milliseconds) override {
    return reader_->control({code, input, outputCapacity}, bringUp_);
  }
  host::IoEnd controlInParts(std::uint32_t code, const host::InputParts& input,
                             const host::OutputParts& output, std::chrono::milliseconds) override {
    const host::IoResult result =
        reader_->control({code, joined(input), output.header.size + output.body.size}, bringUp_);
    split(result.output, output);
    return {result.status, result.information};
  }
  std::shared_ptr<host::IoOperation> submit(std::uint32_t code,
                                            const std::vector<std::uint8_t>& input,
                                            std::size_t outputCapacity,
                                            Completion completion) override {
    return reader_->submit({code, input, outputCapacity}, bringUp_, std::move(completion));
  }

 private:
  const std::shared_ptr<FakeReader> reader_;
  const unsigned bringUp_;
};

}  // namespace

host::IoResult succeededWith(std::vector<std::uint8_t> output) {
  const std::size_t size = output.size();
  return {framework::kOk, size, std::move(output)};
}

host::IoResult failedWith(HRESULT status) { return {status, 0, {}}; }

// --- FakeOperation ---

bool FakeOperation::wait(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, limit,
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return completed_; });
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
  complete(kCancelled);
}

bool FakeOperation::cancelled() const {
  const MutexLock lock(mutex_);
  return cancelled_;
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

void FakeReader::removeCard(HRESULT status) {
  {
    const MutexLock lock(mutex_);
    cardIn_ = false;
  }
  completeWaiting(kIsAbsent, status);
}

void FakeReader::holdDispatch(std::uint32_t code, bool held) {
  const MutexLock lock(mutex_);
  if (held) {
    held_.insert(code);
  } else {
    held_.erase(code);
  }
  changed_.notifyAll();
}

void FakeReader::setServerResults(ServerResults results) {
  const MutexLock lock(mutex_);
  serverResults_ = std::move(results);
}

bool FakeReader::waitForServerQuestion(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return changed_.waitFor(
      lock, limit, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return serverQuestions_ > 0; });
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
  const MutexLock lock(mutex_);
  return std::make_shared<FakeFile>(shared_from_this(), bringUp_);
}

void FakeReader::bringUp() {
  const MutexLock lock(mutex_);
  gone_ = false;
  ++bringUp_;
  if (serverResults_.size() > 1) serverResults_.erase(serverResults_.begin());
}

void FakeReader::takeDown() {
  MutexLock lock(mutex_);
  gone_ = true;
  changed_.notifyAll();
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return answering_ == 0; });
  for (std::size_t i = 0; i < submitted_.size(); ++i) {
    const std::shared_ptr<FakeOperation> operation = submitted_[i].operation;
    lock.unlock();
    operation->complete(kCancelled);
    lock.lock();
  }
}

host::IoResult FakeReader::answerServerResult() {
  ++serverQuestions_;
  changed_.notifyAll();
  if (serverResults_.empty() || serverResults_.front().empty()) return failedWith(kNotSupported);
  std::vector<std::uint32_t>& results = serverResults_.front();
  const std::uint32_t result = results.front();
  if (results.size() > 1) results.erase(results.begin());
  return succeededWith({static_cast<std::uint8_t>(result), static_cast<std::uint8_t>(result >> 8),
                        static_cast<std::uint8_t>(result >> 16),
                        static_cast<std::uint8_t>(result >> 24)});
}

host::IoResult FakeReader::control(const Request& request, unsigned bringUp) {
  Answer answer;
  {
    const MutexLock lock(mutex_);
    if (isGone(bringUp)) return failedWith(host::kDeviceGone);
    if (request.code == kGetAttribute && request.input == kServerResultTag) {
      return answerServerResult();
    }
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

std::shared_ptr<host::IoOperation> FakeReader::submit(const Request& request, unsigned bringUp,
                                                      host::File::Completion completion) {
  const auto operation = std::make_shared<FakeOperation>(std::move(completion));
  MutexLock lock(mutex_);
  requests_.push_back(request);
  changed_.notifyAll();
  changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return isGone(bringUp) || held_.count(request.code) == 0;
  });
  const std::optional<HRESULT> status = presenceStatus(request.code, isGone(bringUp));
  if (!status) submitted_.push_back({request.code, operation});
  lock.unlock();
  if (status) operation->complete(*status);
  const MutexLock again(mutex_);
  changed_.notifyAll();
  return operation;
}

std::optional<HRESULT> FakeReader::presenceStatus(std::uint32_t code, bool gone) {
  std::deque<HRESULT>& next = next_[code];
  std::optional<HRESULT> scripted;
  if (!next.empty()) {
    scripted = next.front();
    next.pop_front();
  }
  if (gone) return host::kDeviceGone;
  if (all_.count(code) != 0) return all_[code];
  if (scripted) return scripted;
  const bool fulfilled = code == kIsPresent ? cardIn_ : !cardIn_;
  return fulfilled ? std::optional<HRESULT>(framework::kOk) : std::nullopt;
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
  if (!record_->bringUpFailures.empty()) {
    const std::string failure = record_->bringUpFailures.front();
    record_->bringUpFailures.pop_front();
    if (!failure.empty()) throw host::HostError(failure);
  }
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
