#include "tests/doubles/framework/fake_driver_host.h"

#include <algorithm>
#include <utility>

#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "contract/status.h"

namespace zelta::test {

using framework::HRESULT;
using platform::MutexLock;

namespace {

class FakeFile final : public host::File {
 public:
  FakeFile(std::shared_ptr<FakeReader> reader, unsigned bringUp)
      : reader_(std::move(reader)), bringUp_(bringUp) {}

  host::IoResult control(std::uint32_t code, const Bytes& input, std::size_t outputCapacity,
                         std::chrono::milliseconds) override {
    return reader_->control({code, input, outputCapacity}, bringUp_);
  }
  host::IoStatus controlInParts(std::uint32_t code, const host::InputParts& input,
                                const host::OutputParts& output,
                                std::chrono::milliseconds) override {
    Bytes joined(input.header.data, input.header.data + input.header.size);
    joined.insert(joined.end(), input.body.data, input.body.data + input.body.size);
    const host::IoResult result =
        reader_->control({code, joined, output.header.size + output.body.size}, bringUp_);
    auto next = result.output.begin();
    for (const host::MutableBytes& part : {output.header, output.body}) {
      const auto size = std::min<std::ptrdiff_t>(result.output.end() - next,
                                                 static_cast<std::ptrdiff_t>(part.size));
      std::copy_n(next, size, part.data);
      next += size;
    }
    return {result.status, result.information};
  }
  std::shared_ptr<host::IoOperation> submit(std::uint32_t code, const Bytes& input,
                                            std::size_t outputCapacity,
                                            Completion completion) override {
    return reader_->submit({code, input, outputCapacity}, bringUp_, std::move(completion));
  }

 private:
  const std::shared_ptr<FakeReader> reader_;
  const unsigned bringUp_;
};

}  // namespace

host::IoResult succeededWith(Bytes output) {
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
  cancelled_ = true;
  complete(status::kCancelled);
}

void FakeOperation::complete(HRESULT status) {
  if (completing_.exchange(true)) return;
  result_.status = status;
  if (completion_) completion_(result_);
  const MutexLock lock(mutex_);
  completed_ = true;
  changed_.notifyAll();
}

// --- FakeReader ---

void FakeReader::setCard(bool in, std::uint32_t completedCode, HRESULT status) {
  std::shared_ptr<FakeOperation> waiting;
  {
    const MutexLock lock(mutex_);
    cardIn_ = in;
    waiting = newestWaiting(completedCode);
  }
  if (waiting) waiting->complete(status);
}

void FakeReader::insertCard() { setCard(true, IOCTL_SMARTCARD_IS_PRESENT, framework::kOk); }

void FakeReader::removeCard(HRESULT status) { setCard(false, IOCTL_SMARTCARD_IS_ABSENT, status); }

void FakeReader::holdDispatch(std::uint32_t code, bool held) {
  const MutexLock lock(mutex_);
  presence_[code].held = held;
  changed_.notifyAll();
}

void FakeReader::completeNext(std::uint32_t code, std::vector<HRESULT> statuses) {
  const MutexLock lock(mutex_);
  presence_[code].all.reset();
  presence_[code].next.assign(statuses.begin(), statuses.end());
}

void FakeReader::completeAll(std::uint32_t code, HRESULT status) {
  const MutexLock lock(mutex_);
  presence_[code].all = status;
}

void FakeReader::answer(std::uint32_t code, Answer answer) {
  const MutexLock lock(mutex_);
  answers_[code] = std::move(answer);
}

void FakeReader::setServerResults(ServerResults results) {
  const MutexLock lock(mutex_);
  serverResults_ = std::move(results);
}

bool FakeReader::waitForServerQuestion(std::chrono::milliseconds limit) {
  return waitUntil(limit,
                   [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return serverQuestions_ > 0; });
}

std::shared_ptr<FakeOperation> FakeReader::newestWaiting(std::uint32_t code) const {
  for (auto each = submitted_.rbegin(); each != submitted_.rend(); ++each) {
    if (each->code == code && !each->operation->completed()) return each->operation;
  }
  return nullptr;
}

std::shared_ptr<FakeOperation> FakeReader::waitForWaiting(std::uint32_t code) {
  std::shared_ptr<FakeOperation> found;
  waitUntil(kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    found = newestWaiting(code);
    return found != nullptr;
  });
  return found;
}

bool FakeReader::waitForCount(std::uint32_t code, std::size_t count) {
  return waitUntil(kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    const auto made = std::count_if(requests_.begin(), requests_.end(),
                                    [code](const Request& each) { return each.code == code; });
    return static_cast<std::size_t>(made) >= count;
  });
}

std::vector<FakeReader::Request> FakeReader::requests(std::uint32_t code) const {
  const MutexLock lock(mutex_);
  std::vector<Request> found;
  std::copy_if(requests_.begin(), requests_.end(), std::back_inserter(found),
               [code](const Request& each) { return each.code == code; });
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
    operation->complete(status::kCancelled);
    lock.lock();
  }
}

host::IoResult FakeReader::answerServerResult() {
  ++serverQuestions_;
  changed_.notifyAll();
  if (serverResults_.empty() || serverResults_.front().empty()) {
    return failedWith(status::kNotSupported);
  }
  std::vector<std::uint32_t>& results = serverResults_.front();
  const std::uint32_t result = results.front();
  if (results.size() > 1) results.erase(results.begin());
  return succeededWith(numberBytes(result));
}

host::IoResult FakeReader::control(const Request& request, unsigned bringUp) {
  // The answer may throw for lack of memory.
  struct EndOfAnswer {
    FakeReader& reader;
    ~EndOfAnswer() {
      const MutexLock lock(reader.mutex_);
      --reader.answering_;
      reader.changed_.notifyAll();
    }
  };
  Answer answer;
  {
    const MutexLock lock(mutex_);
    if (isGone(bringUp)) return failedWith(host::kDeviceGone);
    if (request.code == IOCTL_SMARTCARD_GET_ATTRIBUTE && request.input.size() == kNumberSize &&
        loadLittleEndian(request.input.data()) == SERVER_RESULT) {
      return answerServerResult();
    }
    const auto found = answers_.find(request.code);
    if (found != answers_.end()) answer = found->second;
    requests_.push_back(request);
    ++answering_;
    changed_.notifyAll();
  }
  const EndOfAnswer end{*this};
  return answer ? answer(request) : succeededWith({});
}

std::shared_ptr<host::IoOperation> FakeReader::submit(const Request& request, unsigned bringUp,
                                                      host::File::Completion completion) {
  const auto operation = std::make_shared<FakeOperation>(std::move(completion));
  MutexLock lock(mutex_);
  requests_.push_back(request);
  changed_.notifyAll();
  changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return isGone(bringUp) || !presence_[request.code].held;
  });
  const std::optional<HRESULT> status = presenceStatus(request.code, isGone(bringUp));
  if (!status) submitted_.push_back({request.code, operation});
  changed_.notifyAll();
  lock.unlock();
  if (status) operation->complete(*status);
  return operation;
}

std::optional<HRESULT> FakeReader::presenceStatus(std::uint32_t code, bool gone) {
  Presence& presence = presence_[code];
  std::optional<HRESULT> scripted;
  if (!presence.next.empty()) {
    scripted = presence.next.front();
    presence.next.pop_front();
  }
  if (gone) return host::kDeviceGone;
  if (presence.all) return presence.all;
  if (scripted) return scripted;
  const bool fulfilled = cardIn_ == (code == IOCTL_SMARTCARD_IS_PRESENT);
  return fulfilled ? std::optional<HRESULT>(framework::kOk) : std::nullopt;
}

// --- FakeDriverHost ---

std::unique_ptr<host::DriverHost> FakeDriverHost::load(const std::string& modulePath,
                                                       host::HostOptions options,
                                                       std::shared_ptr<FakeHostRecord> record,
                                                       Readers readers) {
  if (!record->loadFailure.empty()) throw host::HostError(record->loadFailure);
  record->loaded.push_back(modulePath);
  record->driverError = std::move(options.driverError);
  return std::make_unique<FakeDriverHost>(std::move(record), std::move(readers));
}

FakeDriverHost::~FakeDriverHost() {
  tearDown();
  ++record_->destroyed;
}

void FakeDriverHost::bringUp() {
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

}  // namespace zelta::test
