#include "platform/pipe/pipe_end_linux.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <iterator>
#include <utility>

#include "platform/process/error.h"
#include "platform/process/error_linux.h"

namespace zelta::platform {

namespace {

bool hungUp(int client) {
  pollfd state{client, 0, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

bool hasUnread(int client) {
  int bytes = 0;
  return ioctl(client, FIONREAD, &bytes) == 0 && bytes > 0;
}

bool watch(int poller, int change, int descriptor, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  return epoll_ctl(poller, change, descriptor, &event) == 0;
}

constexpr std::uint32_t kClientEvents = EPOLLOUT | EPOLLET;

}  // namespace

class PipeEnd::Entry {
 public:
  Entry(PipeEnd& end, Operation& operation) : end_(end), operation_(operation) {
    MutexLock lock(end_.mutex_);
    end_.add(operation_);
    error_ = end_.begin(operation_, lock);
  }
  ~Entry() {
    const MutexLock lock(end_.mutex_);
    end_.remove(operation_);
  }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  // Why the operation cannot go on; 0 if it can.
  std::uint32_t error() const { return error_; }

 private:
  PipeEnd& end_;
  Operation& operation_;
  std::uint32_t error_ = error::kSuccess;
};

PipeEnd::PipeEnd(std::string path, PipeAccess access)
    : listener_(std::move(path), std::move(access)) {}

PipeEnd::~PipeEnd() { close(); }

std::uint32_t PipeEnd::open() {
  wake_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  poller_.reset(epoll_create1(EPOLL_CLOEXEC));
  if (!wake_ || !poller_ || !watch(poller_.get(), EPOLL_CTL_ADD, wake_.get(), EPOLLIN)) {
    return errorFromErrno(errno);
  }
  const MutexLock lock(mutex_);
  return listener_.open();
}

std::uint32_t PipeEnd::connect() {
  Operation operation(Kind::kConnect);
  const Entry entry(*this, operation);
  std::uint32_t error = entry.error();
  for (bool waited = false; error == error::kSuccess; waited = true) {
    SharedFd listening;
    {
      MutexLock lock(mutex_);
      while (operation.endedBy == error::kSuccess && clientHasGone()) {
        endOperations(error::kSuccess, error::kBrokenPipe);
        dropClient(lock);
      }
      if (operation.endedBy != error::kSuccess) return operation.endedBy;
      error = admit(waited);
      if (error != error::kIoPending) return error;
      listening = listener_.socket();
    }
    error = sleep(operation, listening->get(), POLLIN);
  }
  return error;
}

std::uint32_t PipeEnd::disconnect() {
  MutexLock lock(mutex_);
  if (closed_) return error::kInvalidHandle;
  endOperations(error::kOperationAborted, error::kBrokenPipe);
  dropClient(lock);
  const std::uint32_t error = listen();
  waitUntilEnded(lock);
  return error;
}

std::uint32_t PipeEnd::cancel() {
  const MutexLock lock(mutex_);
  if (closed_) return error::kInvalidHandle;
  return endOperations(error::kOperationAborted, error::kOperationAborted) ? error::kSuccess
                                                                           : error::kNotFound;
}

std::uint32_t PipeEnd::read(void* data, std::size_t size) {
  Operation operation(Kind::kRead);
  const Entry entry(*this, operation);
  if (entry.error() != error::kSuccess) return entry.error();
  return readAll(operation, static_cast<std::uint8_t*>(data), size);
}

std::uint32_t PipeEnd::write(const void* data, std::size_t size) {
  Operation operation(Kind::kWrite);
  const Entry entry(*this, operation);
  if (entry.error() != error::kSuccess) return entry.error();
  return writeAll(operation, static_cast<const std::uint8_t*>(data), size);
}

std::uint32_t PipeEnd::flush() {
  Operation operation(Kind::kFlush);
  const Entry entry(*this, operation);
  if (entry.error() != error::kSuccess) return entry.error();
  return waitUntilRead(operation);
}

void PipeEnd::close() {
  MutexLock lock(mutex_);
  if (closed_) return;
  closed_ = true;
  endOperations(error::kOperationAborted, error::kBrokenPipe);
  dropClient(lock);
  listener_.close();
  waitUntilEnded(lock);
}

void PipeEnd::add(Operation& operation) {
  Operation** last = &first_;
  while (*last != nullptr) last = &(*last)->next;
  *last = &operation;
}

void PipeEnd::remove(Operation& operation) {
  Operation** link = &first_;
  while (*link != &operation) link = &(*link)->next;
  *link = operation.next;
  const bool wasEnded = operation.endedBy != error::kSuccess;
  if (wasEnded && --ending_ == 0) {
    eventfd_t count = 0;
    eventfd_read(wake_.get(), &count);
  }
  // An edge wakes one flush and is then gone. A flush that leaves restores it if another may need
  // it: one that also waits, or, after a cancel, the next one.
  if (operation.kind == Kind::kFlush && operation.client != kNoFd &&
      (wasEnded || any([](const Operation& other) { return other.kind == Kind::kFlush; }))) {
    watch(poller_.get(), EPOLL_CTL_MOD, operation.client, kClientEvents);
  }
  changed_.notifyAll();
}

template <typename Condition>
bool PipeEnd::any(Condition condition) const {
  const Operation* each = first_;
  while (each != nullptr && !condition(*each)) each = each->next;
  return each != nullptr;
}

// The operation is in the list already.
std::uint32_t PipeEnd::begin(Operation& operation, MutexLock& lock) {
  if (closed_) return error::kInvalidHandle;
  if (operation.kind == Kind::kConnect) return error::kSuccess;
  if (!client_) return error::kPipeListening;
  operation.client = client_.get();
  changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return operation.endedBy != error::kSuccess || turnOf(operation);
  });
  if (operation.endedBy != error::kSuccess) return operation.endedBy;
  noteCommand(operation);
  return foundGone_ ? error::kBrokenPipe : error::kSuccess;
}

void PipeEnd::noteCommand(const Operation& operation) {
  const bool writes = operation.kind == Kind::kWrite;
  if (writes && !inCommand_) answerUnread_ = hasUnread(operation.client);
  inCommand_ = writes;
}

bool PipeEnd::turnOf(const Operation& operation) const {
  if (operation.kind == Kind::kFlush) return true;
  const Operation* first = first_;
  while (first->kind != operation.kind) first = first->next;
  return first == &operation;
}

bool PipeEnd::endOperations(std::uint32_t connectError, std::uint32_t clientError) {
  const int before = ending_;
  for (Operation* each = first_; each != nullptr; each = each->next) {
    if (each->endedBy != error::kSuccess) continue;
    each->endedBy = each->kind == Kind::kConnect ? connectError : clientError;
    if (each->endedBy != error::kSuccess) ++ending_;
  }
  if (ending_ == before) return false;
  eventfd_write(wake_.get(), 1);
  changed_.notifyAll();
  return true;
}

void PipeEnd::waitUntilEnded(MutexLock& lock) {
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return ending_ == 0; });
}

bool PipeEnd::clientHasGone() const { return client_ && (foundGone_ || hungUp(client_.get())); }

// ERROR_IO_PENDING (997) if no client is there.
std::uint32_t PipeEnd::admit(bool waited) {
  if (client_) return error::kPipeConnected;
  if (const std::uint32_t error = listen()) return error;
  FdResult next = nextClient(waited);
  if (next.error != error::kSuccess) return next.error;
  if (!next.fd) return error::kIoPending;
  if (!watch(poller_.get(), EPOLL_CTL_ADD, next.fd.get(), kClientEvents)) {
    return errorFromErrno(errno);
  }
  client_ = std::move(next.fd);
  listener_.refuse();
  return waited ? error::kSuccess : error::kPipeConnected;
}

// The first of the waiting clients that is still there. Without one, the first that has gone: any
// client if it came during the wait, else one that left bytes.
FdResult PipeEnd::nextClient(bool waited) {
  FdResult left;
  for (;;) {
    FdResult next = listener_.accept();
    if (next.error != error::kSuccess) return next;
    if (!next.fd) return left;
    if (!hungUp(next.fd.get())) return next;
    if (!left.fd && (waited || hasUnread(next.fd.get()))) left = std::move(next);
  }
}

void PipeEnd::dropClient(MutexLock& lock) {
  if (!client_) return;
  // No operation finds this client any more. Another may be let in while the operations on this one
  // end.
  const ScopedFd dropped = std::move(client_);
  foundGone_ = inCommand_ = answerUnread_ = false;
  shutdown(dropped.get(), SHUT_RDWR);
  changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return !any([&](const Operation& each) { return each.client == dropped.get(); });
  });
  watch(poller_.get(), EPOLL_CTL_DEL, dropped.get(), 0);
}

std::uint32_t PipeEnd::listen() {
  if (closed_) return error::kInvalidHandle;
  return client_ || listener_.listening() ? error::kSuccess : listener_.open();
}

std::uint32_t PipeEnd::prepareToSleep(const Operation& operation) {
  MutexLock lock(mutex_);
  changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return operation.endedBy != error::kSuccess || ending_ == 0;
  });
  return operation.endedBy;
}

std::uint32_t PipeEnd::sleep(const Operation& operation, int descriptor, short events) {
  if (const std::uint32_t error = prepareToSleep(operation)) return error;
  pollfd waits[] = {{descriptor, events, 0}, {wake_.get(), POLLIN, 0}};
  int ready = 0;
  do {
    ready = poll(waits, std::size(waits), -1);
  } while (ready < 0 && errno == EINTR);
  return ready < 0 ? errorFromErrno(errno) : ended(operation, error::kSuccess);
}

std::uint32_t PipeEnd::ended(const Operation& operation, std::uint32_t otherwise) {
  const MutexLock lock(mutex_);
  return operation.endedBy != error::kSuccess ? operation.endedBy : otherwise;
}

std::uint32_t PipeEnd::failed(const Operation& operation, int number) {
  const MutexLock lock(mutex_);
  if (number == EPIPE || number == ECONNRESET) noteGone(operation);
  return operation.endedBy != error::kSuccess ? operation.endedBy : errorFromErrno(number);
}

void PipeEnd::noteGone(const Operation& operation) {
  // The client may have been dropped meanwhile and another let in.
  if (operation.client == client_.get()) foundGone_ = true;
}

std::uint32_t PipeEnd::lost(const Operation& operation) {
  const MutexLock lock(mutex_);
  noteGone(operation);
  return operation.endedBy != error::kSuccess ? operation.endedBy : error::kBrokenPipe;
}

std::uint32_t PipeEnd::left(const Operation& operation) {
  MutexLock lock(mutex_);
  changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return !any([&](const Operation& each) {
      return each.kind == Kind::kWrite && each.client == operation.client;
    });
  });
  if (answerUnread_) noteGone(operation);
  if (operation.endedBy != error::kSuccess) return operation.endedBy;
  return foundGone_ ? error::kBrokenPipe : error::kSuccess;
}

}  // namespace zelta::platform
