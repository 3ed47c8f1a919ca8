// Not sd-event: `receive` waits on its caller's thread, with a deadline of each call's own.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <system_error>
#include <utility>

#include "agent/platform/stop_event_linux.h"
#include "agent/remote/dialer.h"
#include "platform/files/scoped_fd_linux.h"
#include "platform/process/wipe.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

namespace {

using platform::ScopedFd;

constexpr std::size_t kReadSize = 65536;         // bytes at once
constexpr std::size_t kMostUnsent = 4UL << 20U;  // bytes; an end that reads never leaves so many
constexpr short kGone = POLLERR | POLLHUP | POLLNVAL;

void makeNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "fcntl");
  }
}

class DescriptorLine final : public Line {
 public:
  // Owns `input` and `output`, which may be the same.
  DescriptorLine(int input, int output)
      : input_(input),
        output_(output == input ? platform::kNoFd : output),
        out_(output),
        woken_(checkedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    makeNonBlocking(input);
    makeNonBlocking(output);
  }

  void send(const Bytes& bytes) override {
    const platform::MutexLock lock(mutex_);
    const bool waiting = unsent_.size() > 0;
    unsent_.append(bytes);
    if (!waiting) flush();
    lost_ = unsent_.size() > kMostUnsent;
    if (unsent_.size() > 0) eventfd_write(woken_.get(), 1);
  }

  IoResult receive(platform::SecretQueue& into, SteadyClock::time_point deadline) override {
    for (;;) {
      if (cancelled_) return IoResult::kCancelled;
      if (isLost()) return IoResult::kClosed;
      std::array<pollfd, 3> waits{{{woken_.get(), POLLIN, 0},
                                   {input_.get(), POLLIN, 0},
                                   {hasUnsent() ? out_ : platform::kNoFd, POLLOUT, 0}}};
      const int ready = poll(waits.data(), waits.size(), pollTimeout(deadline));
      if (ready < 0 && errno != EINTR) return IoResult::kClosed;
      if (ready == 0) return IoResult::kTimedOut;
      if (ready < 0) continue;
      if (waits[0].revents != 0) forgetWaking();
      if (waits[2].revents != 0) sendMore();
      if ((waits[1].revents & (POLLIN | kGone)) == 0) continue;
      const IoResult result = readInto(into);
      if (result != IoResult::kTimedOut) return result;
    }
  }

  void cancel() override {
    cancelled_ = true;
    eventfd_write(woken_.get(), 1);
  }

 private:
  // kTimedOut if nothing is there after all.
  IoResult readInto(platform::SecretQueue& into) {
    const ssize_t count = ::read(input_.get(), block_.data(), block_.size());
    if (count < 0) {
      return errno == EAGAIN || errno == EINTR ? IoResult::kTimedOut : IoResult::kClosed;
    }
    if (count == 0) return IoResult::kClosed;
    const auto size = static_cast<std::size_t>(count);
    into.append(block_.data(), size);
    platform::wipe(block_.data(), size);
    return IoResult::kDone;
  }

  // A wake-up stays until it is seen; its reason is in `unsent_`, `lost_` and `cancelled_`.
  void forgetWaking() {
    eventfd_t ignored = 0;
    eventfd_read(woken_.get(), &ignored);
  }

  void sendMore() {
    const platform::MutexLock lock(mutex_);
    flush();
  }

  // Passes on as much as the system takes. If the peer is gone, the bytes it sent before can still
  // be read, so that alone does not lose the line.
  void flush() ZELTA_REQUIRES(mutex_) {
    std::size_t done = 0;
    while (done < unsent_.size()) {
      const ssize_t count = ::write(out_, unsent_.data() + done, unsent_.size() - done);
      if (count > 0) {
        done += static_cast<std::size_t>(count);
      } else if (errno == EAGAIN) {
        break;
      } else if (errno != EINTR) {
        done = unsent_.size();
      }
    }
    unsent_.drop(done);
  }

  bool hasUnsent() {
    const platform::MutexLock lock(mutex_);
    return unsent_.size() > 0;
  }

  bool isLost() {
    const platform::MutexLock lock(mutex_);
    return lost_;
  }

  const ScopedFd input_;
  const ScopedFd output_;
  const int out_;
  const ScopedFd woken_;  // readable when `receive` has to look again
  std::atomic<bool> cancelled_{false};
  std::array<std::uint8_t, kReadSize> block_{};  // of `receive`
  platform::Mutex mutex_;
  platform::SecretQueue unsent_ ZELTA_GUARDED_BY(mutex_);
  bool lost_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace

std::unique_ptr<Line> makeDescriptorLine(int input, int output) {
  (void)signal(SIGPIPE, SIG_IGN);
  return std::make_unique<DescriptorLine>(input, output);
}

}  // namespace zelta::agent
