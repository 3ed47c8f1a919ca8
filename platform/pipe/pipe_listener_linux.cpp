#include "platform/pipe/pipe_listener_linux.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <new>
#include <utility>

#include "platform/pipe/pipe_folder_linux.h"
#include "platform/process/error.h"
#include "platform/process/error_linux.h"

namespace zelta::platform {

namespace {

// A socket gets this after its name until it listens.
constexpr char kUnready[] = "~";
// How many clients may wait to be accepted; a greater number wakes those blocked on a full queue.
constexpr int kQueue = 64;
constexpr int kQueueToWake = kQueue + 1;

// With a name that does not fit, the address is cut off; `fits` tells.
sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

bool fits(const std::string& path) { return path.size() < sizeof(sockaddr_un::sun_path); }

// What follows the path's last slash.
const char* ownName(const std::string& path) { return path.c_str() + path.rfind('/') + 1; }

bool someoneWaits(int socket) {
  pollfd state{socket, POLLIN, 0};
  return poll(&state, 1, 0) == 1;
}

const sockaddr* generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace

PipeListener::PipeListener(std::string path, PipeAccess access)
    : path_(std::move(path)), access_(std::move(access)) {}

PipeListener::~PipeListener() { close(); }

std::uint32_t PipeListener::open() {
  try {
    return openPlace();
  } catch (const std::bad_alloc&) {
    return error::kNotEnoughMemory;
  }
}

std::uint32_t PipeListener::openPlace() {
  // All the memory that there is need of, before anything appears in the folder.
  const std::string unready = path_ + kUnready;
  auto socket = std::make_shared<ScopedFd>();
  if (!fits(unready)) return error::kNameTooLong;
  ScopedFd folder;
  if (const std::uint32_t error = openFolder(this->folder(), &access_, &folder)) return error;
  const FolderLock lock(folder.get());
  if (!lock.held()) return errorFromErrno(errno);
  if (look(folder.get()) == Place::kTaken) return error::kAccessDenied;

  FileId id{};
  if (!bindIn(folder.get(), unready, socket.get(), &id) ||
      renameat(folder.get(), ownName(unready), folder.get(), name()) != 0) {
    const std::uint32_t error = errorFromErrno(errno);
    unlinkat(folder.get(), ownName(unready), 0);
    return error;
  }
  socket_ = std::move(socket);
  id_ = id;
  listening_ = true;
  return error::kSuccess;
}

void PipeListener::refuse() {
  if (!listening_) return;
  listening_ = false;
  // From here on the kernel lets nobody into the queue; who is in it already is dropped below.
  shutdown(socket_->get(), SHUT_RD);
  listen(socket_->get(), kQueueToWake);
  while (ScopedFd(::accept(socket_->get(), nullptr, nullptr))) {
  }
}

void PipeListener::close() {
  if (socket_ == nullptr) return;
  ScopedFd folder;
  if (openFolder(this->folder(), nullptr, &folder) == error::kSuccess) {
    const FolderLock lock(folder.get());
    if (look(folder.get()) == Place::kOwn) unlinkat(folder.get(), name(), 0);
  }
  // Also for those who share the socket: a thread about to leave its wait, a forked process.
  refuse();
  socket_.reset();
  id_.reset();
}

std::uint32_t PipeListener::accept(ScopedFd* client) {
  client->reset();
  // Asked first, because accepting nobody needs a descriptor, too.
  while (listening_ && someoneWaits(socket_->get())) {
    ScopedFd next(accept4(socket_->get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!next) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return errno == EAGAIN ? error::kSuccess : errorFromErrno(errno);
    }
    PeerIdentity peer;
    if (peerIdentity(next.get(), &peer) && access_.admits(peer)) {
      *client = std::move(next);
      return error::kSuccess;
    }
  }
  return error::kSuccess;
}

std::string_view PipeListener::folder() const {
  return std::string_view(path_).substr(0, path_.rfind('/'));
}

const char* PipeListener::name() const { return ownName(path_); }

PipeListener::Place PipeListener::look(int folder) const {
  struct stat found {};
  if (fstatat(folder, name(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Place::kFree : Place::kTaken;
  }
  // The file cannot have been replaced by one of the same number: the socket holds it.
  if (id_ && *id_ == FileId{found.st_dev, found.st_ino}) return Place::kOwn;
  if (!S_ISSOCK(found.st_mode)) return Place::kTaken;
  return alive() ? Place::kTaken : Place::kStale;
}

// Asks the kernel whether a socket is bound to the path, without its owner noticing: a connect
// from a socket of another type is turned away before it reaches the other side: as the wrong type
// if a socket is bound, as refused if none is.
bool PipeListener::alive() const {
  const ScopedFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(path_);
  return !probe || ::connect(probe.get(), generic(address), sizeof(address)) == 0 ||
         errno != ECONNREFUSED;
}

bool PipeListener::bindIn(int folder, const std::string& path, ScopedFd* socket, FileId* id) const {
  const char* const name = ownName(path);
  // Left over if a process ended between making it and giving it its name.
  if (unlinkat(folder, name, 0) != 0 && errno != ENOENT) return false;
  ScopedFd made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_un address = addressOf(path);
  struct stat found {};
  if (!made || bind(made.get(), generic(address), sizeof(address)) != 0 ||
      !restrictAccess(folder, name) || fstatat(folder, name, &found, AT_SYMLINK_NOFOLLOW) != 0 ||
      listen(made.get(), kQueue) != 0) {
    return false;
  }
  *socket = std::move(made);
  *id = {found.st_dev, found.st_ino};
  return true;
}

// Before the socket listens: what the process's umask left open lets nobody in.
bool PipeListener::restrictAccess(int folder, const char* name) const {
  const mode_t mode = giveToGroup(folder, name, access_, access_.socketMode());
  return fchmodat(folder, name, mode, 0) == 0;
}

}  // namespace zelta::platform
