#include "platform/pipe/socket_place_linux.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "platform/pipe/pipe_folder_linux.h"

namespace zelta::platform {

namespace {

// The suffix of a socket's name until it listens.
constexpr char kUnready = '~';

bool fitsAddress(const std::string& path) {
  return !path.empty() && path.size() < sizeof(sockaddr_un::sun_path);
}

// The address of a path that fits.
sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

const sockaddr* generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

// The part after the path's last slash.
const char* ownName(const std::string& path) { return path.c_str() + path.rfind('/') + 1; }

}  // namespace

int connectToPath(const ScopedFd& client, const std::string& path) {
  if (!fitsAddress(path)) return ENAMETOOLONG;
  const sockaddr_un address = addressOf(path);
  return ::connect(client.get(), generic(address), sizeof(address)) == 0 ? 0 : errno;
}

SocketPlace::SocketPlace(std::string path) : path_(std::move(path)), unready_(path_ + kUnready) {}

bool SocketPlace::fits() const { return fitsAddress(unready_); }

SocketPlace::Taken SocketPlace::take(int folder, int queue, const Restrict& restrict) {
  if (!fits()) return {ENAMETOOLONG, {}};
  const FolderLock lock(folder);
  if (!lock.held()) return {errno, {}};
  if (look(folder) == State::kTaken) return {EADDRINUSE, {}};

  Taken taken = bindUnready(folder, queue, restrict);
  const std::optional<FileId> id = identify(folder, ownName(unready_));
  if (taken.error == 0 &&
      (!id || renameat(folder, ownName(unready_), folder, ownName(path_)) != 0)) {
    taken = {errno, {}};
  }
  if (taken.error != 0) {
    unlinkat(folder, ownName(unready_), 0);
    return taken;
  }
  id_ = id;
  return taken;
}

void SocketPlace::release(int folder) {
  const FolderLock lock(folder);
  if (look(folder) == State::kOwn) unlinkat(folder, ownName(path_), 0);
  id_.reset();
}

std::optional<SocketPlace::FileId> SocketPlace::identify(int folder, const char* name) {
  struct stat found {};
  if (fstatat(folder, name, &found, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return FileId{found.st_dev, found.st_ino, found.st_mode & S_IFMT};
}

SocketPlace::State SocketPlace::look(int folder) const {
  const std::optional<FileId> found = identify(folder, ownName(path_));
  if (!found) return errno == ENOENT ? State::kFree : State::kTaken;
  // The file cannot have been replaced by one of the same number: the socket holds it.
  if (id_ && *id_ == *found) return State::kOwn;
  if (!S_ISSOCK(found->type)) return State::kTaken;
  return isAlive() ? State::kTaken : State::kStale;
}

// A connect from a socket of another type is turned away before it reaches the other side: as the
// wrong type if a socket is bound to the path, as refused if none is.
bool SocketPlace::isAlive() const {
  const ScopedFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return !probe || connectToPath(probe, path_) != ECONNREFUSED;
}

SocketPlace::Taken SocketPlace::bindUnready(int folder, int queue, const Restrict& restrict) const {
  const char* const name = ownName(unready_);
  // Left by a process that ended between making the socket and renaming it.
  if (unlinkat(folder, name, 0) != 0 && errno != ENOENT) return {errno, {}};
  ScopedFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const sockaddr_un address = addressOf(unready_);
  // Restricted before it listens: what the process's umask left open admits nobody.
  if (!socket || bind(socket.get(), generic(address), sizeof(address)) != 0 ||
      !restrict(folder, name) || listen(socket.get(), queue) != 0) {
    return {errno, {}};
  }
  return {0, std::move(socket)};
}

}  // namespace zelta::platform
