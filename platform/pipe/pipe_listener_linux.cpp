#include "platform/pipe/pipe_listener_linux.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <optional>
#include <utility>

#include "platform/pipe/pipe_folder_linux.h"
#include "platform/process/error.h"
#include "platform/process/error_linux.h"

namespace zelta::platform {

namespace {

// How many clients may wait to be accepted; a greater number wakes those blocked on a full queue.
constexpr int kQueue = 64;
constexpr int kQueueToWake = kQueue + 1;

bool someoneWaits(int socket) {
  pollfd state{socket, POLLIN, 0};
  return poll(&state, 1, 0) == 1;
}

}  // namespace

PipeListener::PipeListener(std::string path, PipeAccess access)
    : access_(std::move(access)), place_(std::move(path)) {}

PipeListener::~PipeListener() { close(); }

std::uint32_t PipeListener::open() {
  try {
    return openPlace();
  } catch (const std::bad_alloc&) {
    return error::kNotEnoughMemory;
  }
}

std::uint32_t PipeListener::openPlace() {
  // Allocates everything first: once something appears in the folder, nothing may fail for lack of
  // memory.
  auto socket = std::make_shared<ScopedFd>();
  if (!place_.fits()) return error::kNameTooLong;
  const FdResult folder = openFolder(this->folder(), &access_);
  if (folder.error != error::kSuccess) return folder.error;
  SocketPlace::Taken taken = place_.take(
      folder.fd.get(), kQueue,
      [this](int descriptor, const char* name) { return restrictAccess(descriptor, name); });
  if (taken.error != 0) return errorFromErrno(taken.error);
  *socket = std::move(taken.socket);
  socket_ = std::move(socket);
  listening_ = true;
  return error::kSuccess;
}

void PipeListener::refuse() {
  if (!listening_) return;
  listening_ = false;
  // After this the kernel admits no client to the queue; those already in it are dropped below.
  shutdown(socket_->get(), SHUT_RD);
  listen(socket_->get(), kQueueToWake);
  while (ScopedFd(::accept(socket_->get(), nullptr, nullptr))) {
  }
}

void PipeListener::close() {
  if (socket_ == nullptr) return;
  const FdResult folder = openFolder(this->folder(), nullptr);
  if (folder.error == error::kSuccess) place_.release(folder.fd.get());
  // A thread leaving its wait or a forked process may still hold the socket.
  refuse();
  socket_.reset();
}

FdResult PipeListener::accept() {
  // Asked first, because accepting nobody needs a descriptor, too.
  while (listening_ && someoneWaits(socket_->get())) {
    ScopedFd next(accept4(socket_->get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!next) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return {errno == EAGAIN ? error::kSuccess : errorFromErrno(errno), {}};
    }
    const std::optional<PeerIdentity> peer = peerIdentity(next.get());
    if (peer && access_.admits(*peer)) return {error::kSuccess, std::move(next)};
  }
  return {};
}

std::string_view PipeListener::folder() const {
  const std::string& path = place_.path();
  return std::string_view(path).substr(0, path.rfind('/'));
}

bool PipeListener::restrictAccess(int folder, const char* name) const {
  const mode_t mode = giveToGroup(folder, name, access_, access_.socketMode());
  return fchmodat(folder, name, mode, 0) == 0;
}

}  // namespace zelta::platform
