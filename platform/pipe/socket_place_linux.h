// A place in the file system at which a UNIX stream socket listens.
//
// A socket that is bound to its path tells others that the place is taken, whether it listens or
// not. The path of a process that is gone is taken over; a socket in use, and anything that is not
// a socket, stays untouched. A new socket is bound beside the path, made ready and renamed over it,
// so that a client that finds it can connect, and a path that is taken again never vanishes.
//
// Not synchronised: the owner's lock guards it. Processes that change the same folder exclude each
// other by a lock on the folder (flock), held for the change only.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::platform {

// Connects `client` to the socket at `path`: 0 or the system's error number (ENAMETOOLONG if no
// socket can have that path).
[[nodiscard]] int connectToPath(const ScopedFd& client, const std::string& path);

class SocketPlace {
 public:
  // Sets who may connect to the file `name` of `folder`, before its socket listens. False, with
  // errno set, if that fails.
  using Restrict = std::function<bool(int folder, const char* name)>;

  struct Taken {
    int error = 0;    // the system's error number; the socket is valid if there is none
    ScopedFd socket;  // listens; non-blocking
  };

  // The constructor touches nothing. A relative path starts at the current folder.
  explicit SocketPlace(std::string path);

  // Whether the path, and the name before the socket is ready, are short enough for a socket.
  bool fits() const;
  // Puts a listening socket in the place. `folder` is the place's folder, opened; up to `queue`
  // clients may wait to be accepted. EADDRINUSE if something else is there. After a failure
  // everything is as before. Needs no memory but for a name that is longer than the path by one.
  [[nodiscard]] Taken take(int folder, int queue, const Restrict& restrict);
  // Removes the path if it is still this place's own. May be repeated. Needs no memory.
  void release(int folder);
  // Whether a socket is bound to the path. Its owner does not notice.
  bool isAlive() const;

  const std::string& path() const { return path_; }

 private:
  struct FileId {
    dev_t device;
    ino_t inode;
    mode_t type;
    bool operator==(const FileId& other) const {
      return device == other.device && inode == other.inode;
    }
  };
  enum class State { kFree, kOwn, kStale, kTaken };

  // None, with errno set, if there is no such file.
  static std::optional<FileId> identify(int folder, const char* name);
  State look(int folder) const;
  // Puts a listening socket at the unready name.
  Taken bindUnready(int folder, int queue, const Restrict& restrict) const;

  const std::string path_;
  const std::string unready_;  // the socket's path until it listens
  std::optional<FileId> id_;   // of the socket's file; set by `take`
};

}  // namespace zelta::platform
