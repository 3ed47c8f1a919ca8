// A pipe's place in the file system and the socket that listens there.
//
// The place is taken from `open` until `close`, also while no client is let in: a socket stays
// bound to the path the whole time, so that another process can tell a living pipe from a path
// that a dead process left behind. A socket that refuses cannot be made to listen again; `open`
// puts a new one in its place by renaming it over the path, already listening, so that the path
// never vanishes. Whoever waits for the path with inotify sees IN_MOVED_TO when it can connect.
//
// Processes that change the same folder exclude each other by a lock on the folder (flock), held
// for the change only; it leaves nothing behind.
//
// Not synchronised: the owner's lock guards it. No call blocks for longer than another process
// holds the folder's lock.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/pipe_access_linux.h"

namespace zelta::platform {

using SharedFd = std::shared_ptr<const ScopedFd>;

class PipeListener {
 public:
  // `path` is absolute. Nothing is touched yet.
  PipeListener(std::string path, PipeAccess access);
  ~PipeListener();
  PipeListener(const PipeListener&) = delete;
  PipeListener& operator=(const PipeListener&) = delete;

  // Makes missing folders and listens at the path. Returns 0 or a system error number:
  // ERROR_ACCESS_DENIED (5) if something else lives there (a socket in use, or no socket at all; it
  // stays untouched), ERROR_FILENAME_EXCED_RANGE (206) if the path is longer than a socket's can
  // be, ERROR_NOT_ENOUGH_MEMORY (8) without memory. After a failure the state is as before.
  std::uint32_t open();
  // Lets no further client in: from now on a connect fails at once with ECONNREFUSED, and so do
  // those blocked on a full queue; clients that were let in but not accepted are dropped. The
  // place stays taken.
  void refuse();
  // Whether clients are let in.
  bool listening() const { return listening_; }
  // Removes the path if it is still this pipe's own, and drops whoever was not accepted. Needs
  // no memory.
  void close();

  // The next client waiting that may use the pipe, with close-on-exec and non-blocking; none
  // if there is no other. Clients that may not are dropped on the way. Returns 0 or a system
  // error number.
  std::uint32_t accept(ScopedFd* client);

  // For waiting until it is readable. Null when closed. Another `open` puts another socket here;
  // this one stays valid for who holds it.
  SharedFd socket() const { return socket_; }

 private:
  struct FileId {
    dev_t device;
    ino_t inode;
    bool operator==(const FileId& other) const {
      return device == other.device && inode == other.inode;
    }
  };
  enum class Place { kFree, kOwn, kStale, kTaken };

  std::string_view folder() const;
  const char* name() const;
  std::uint32_t openPlace();
  Place look(int folder) const;
  bool alive() const;
  bool bindIn(int folder, const std::string& path, ScopedFd* socket, FileId* id) const;
  bool restrictAccess(int folder, const char* name) const;

  const std::string path_;
  const PipeAccess access_;
  SharedFd socket_;
  std::optional<FileId> id_;  // of the socket's file, while there is one
  bool listening_ = false;
};

}  // namespace zelta::platform
