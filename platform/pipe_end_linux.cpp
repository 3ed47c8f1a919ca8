#include "platform/pipe_end_linux.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "platform/errno_linux.h"
#include "platform/error.h"

namespace zelta::platform {

namespace {

bool gone(int client) {
  pollfd state{client, 0, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

bool hasUnread(int client) {
  int bytes = 0;
  return ioctl(client, FIONREAD, &bytes) == 0 && bytes > 0;
}

}  // namespace

class PipeEnd::Entry {
 public:
  Entry(PipeEnd& end, Operation& operation) : end_(end), operation_(operation) {
    MutexLock lock(end_.mutex_);
    end_.operations_.push_back(&operation_);
    error_ = end_.begin(operation_, lock);
  }
  ~Entry() {
    MutexLock lock(end_.mutex_);
    // Closed before whoever ended the operation sees it leave.
    operation_.client.reset();
    operation_.wake.reset();
    end_.operations_.remove(&operation_);
    end_.changed_.notifyAll();
  }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  // Why the operation cannot go on; 0 where it can.
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
  MutexLock lock(mutex_);
  return listener_.open();
}

std::uint32_t PipeEnd::connect() {
  Operation operation(Kind::Connect);
  const Entry entry(*this, operation);
  std::uint32_t error = entry.error();
  for (bool waited = false; error == error::kSuccess; waited = true) {
    SharedFd listening;
    {
      MutexLock lock(mutex_);
      if (operation.endedBy != error::kSuccess) return operation.endedBy;
      error = admit(waited);
      if (error != error::kIoPending) return error;
      listening = listener_.socket();
    }
    error = wait(operation, listening->get(), POLLIN);
  }
  return error;
}

std::uint32_t PipeEnd::disconnect() {
  MutexLock lock(mutex_);
  if (closed_) return error::kInvalidHandle;
  endOperations(error::kBrokenPipe);
  const std::uint32_t error = dropClient();
  waitUntilEnded(lock);
  return error;
}

std::uint32_t PipeEnd::cancel() {
  MutexLock lock(mutex_);
  if (closed_) return error::kInvalidHandle;
  std::uint32_t result = error::kNotFound;
  for (Operation* operation : operations_) {
    if (operation->endedBy != error::kSuccess) continue;
    end(*operation, error::kOperationAborted);
    result = error::kSuccess;
  }
  changed_.notifyAll();
  return result;
}

std::uint32_t PipeEnd::read(void* data, std::size_t size) {
  Operation operation(Kind::Read);
  const Entry entry(*this, operation);
  if (entry.error() != error::kSuccess) return entry.error();
  return readAll(operation, static_cast<std::uint8_t*>(data), size);
}

std::uint32_t PipeEnd::write(const void* data, std::size_t size) {
  Operation operation(Kind::Write);
  const Entry entry(*this, operation);
  if (entry.error() != error::kSuccess) return entry.error();
  return writeAll(operation, static_cast<const std::uint8_t*>(data), size);
}

std::uint32_t PipeEnd::flush() {
  Operation operation(Kind::Flush);
  const Entry entry(*this, operation);
  if (entry.error() != error::kSuccess) return entry.error();
  return waitUntilRead(operation);
}

void PipeEnd::close() {
  MutexLock lock(mutex_);
  if (closed_) return;
  closed_ = true;
  endOperations(error::kBrokenPipe);
  if (client_ != nullptr) shutdown(client_->get(), SHUT_RDWR);
  client_.reset();
  listener_.close();
  waitUntilEnded(lock);
}

// The operation is in the list already.
std::uint32_t PipeEnd::begin(Operation& operation, MutexLock& lock) {
  if (closed_) return error::kInvalidHandle;
  if (operation.kind == Kind::Connect) return error::kSuccess;
  if (client_ == nullptr) return error::kPipeListening;
  operation.client = client_;
  changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return operation.endedBy != error::kSuccess || turnOf(operation);
  });
  return operation.endedBy;
}

bool PipeEnd::turnOf(const Operation& operation) const {
  if (operation.kind == Kind::Flush) return true;
  const auto first =
      std::find_if(operations_.begin(), operations_.end(),
                   [&](const Operation* other) { return other->kind == operation.kind; });
  return *first == &operation;
}

void PipeEnd::endOperations(std::uint32_t clientError) {
  for (Operation* operation : operations_) {
    if (operation->endedBy != error::kSuccess) continue;
    end(*operation, operation->kind == Kind::Connect ? error::kOperationAborted : clientError);
  }
  changed_.notifyAll();
}

void PipeEnd::end(Operation& operation, std::uint32_t error) {
  operation.endedBy = error;
  if (operation.wake) eventfd_write(operation.wake.get(), 1);
}

void PipeEnd::waitUntilEnded(MutexLock& lock) {
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return std::all_of(operations_.begin(), operations_.end(), [](const Operation* operation) {
      return operation->endedBy == error::kSuccess;
    });
  });
}

// 997 where no client is there.
std::uint32_t PipeEnd::admit(bool waited) {
  if (client_ != nullptr && !gone(client_->get())) return error::kPipeConnected;
  if (const std::uint32_t error = dropClient()) return error;
  ScopedFd next;
  if (const std::uint32_t error = nextClient(waited, &next)) return error;
  if (!next) return error::kIoPending;
  client_ = std::make_shared<const ScopedFd>(std::move(next));
  listener_.refuse();
  return waited ? error::kSuccess : error::kPipeConnected;
}

// The first of the waiting clients that is still there. Without one, the first that has gone: any
// where it came during the wait, else one that left bytes.
std::uint32_t PipeEnd::nextClient(bool waited, ScopedFd* client) {
  ScopedFd left;
  for (;;) {
    ScopedFd next;
    if (const std::uint32_t error = listener_.accept(&next)) return error;
    if (!next) break;
    if (!gone(next.get())) {
      *client = std::move(next);
      return error::kSuccess;
    }
    if (!left && (waited || hasUnread(next.get()))) left = std::move(next);
  }
  *client = std::move(left);
  return error::kSuccess;
}

// Also where there is none: afterwards the pipe listens.
std::uint32_t PipeEnd::dropClient() {
  if (client_ != nullptr) {
    // By name: another thread, about to leave its operation, may still share the descriptor.
    shutdown(client_->get(), SHUT_RDWR);
    client_.reset();
  }
  return listener_.listening() ? error::kSuccess : listener_.open();
}

std::uint32_t PipeEnd::prepareToWait(Operation& operation) {
  MutexLock lock(mutex_);
  if (operation.endedBy != error::kSuccess || operation.wake) return operation.endedBy;
  operation.wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  return operation.wake ? error::kSuccess : errorFromErrno(errno);
}

std::uint32_t PipeEnd::ended(const Operation& operation, std::uint32_t otherwise) {
  MutexLock lock(mutex_);
  return operation.endedBy != error::kSuccess ? operation.endedBy : otherwise;
}

std::uint32_t PipeEnd::wait(Operation& operation, int descriptor, short events) {
  if (const std::uint32_t error = prepareToWait(operation)) return error;
  pollfd waits[] = {{descriptor, events, 0}, {operation.wake.get(), POLLIN, 0}};
  int ready = 0;
  do {
    ready = poll(waits, std::size(waits), -1);
  } while (ready < 0 && errno == EINTR);
  return ready < 0 ? errorFromErrno(errno) : ended(operation, error::kSuccess);
}

}  // namespace zelta::platform
