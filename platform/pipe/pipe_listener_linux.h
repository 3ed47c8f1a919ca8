// A pipe's listening socket, and the clients that may use the pipe.
//
// The pipe keeps its place from `open` until `close`, also while no client is admitted. A socket
// that refuses cannot be made to listen again: `open` puts a new one in its place. A client that
// watches the path with inotify sees IN_MOVED_TO when it can connect.
//
// Not synchronised: the owner's lock guards it. No call blocks for longer than another process
// holds the folder's lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/pipe_access_linux.h"
#include "platform/pipe/socket_place_linux.h"

namespace zelta::platform {

using SharedFd = std::shared_ptr<const ScopedFd>;

class PipeListener {
 public:
  // `path` is absolute. The constructor touches nothing.
  PipeListener(std::string path, PipeAccess access);
  ~PipeListener();
  PipeListener(const PipeListener&) = delete;
  PipeListener& operator=(const PipeListener&) = delete;

  // Makes missing folders and listens at the path. Returns 0 or a system error number:
  // ERROR_ACCESS_DENIED (5) if something else is there (a socket in use, or no socket at all; it
  // stays untouched), ERROR_FILENAME_EXCED_RANGE (206) if the path is longer than a socket's can
  // be, ERROR_NOT_ENOUGH_MEMORY (8). After a failure the state is as before.
  [[nodiscard]] std::uint32_t open();
  // Admits no further client: later connects fail at once with ECONNREFUSED, and so do those
  // blocked on a full queue; clients that wait to be accepted are dropped. The place stays taken.
  void refuse();
  // Whether clients are admitted.
  bool listening() const { return listening_; }
  // Removes the path if it is still this pipe's own, and drops clients that were not accepted.
  // Needs no memory.
  void close();

  // The next waiting client that may use the pipe, with close-on-exec and non-blocking; none if no
  // such client waits. Clients that may not are dropped on the way.
  [[nodiscard]] FdResult accept();

  // For waiting until it is readable. Null when closed. `open` replaces it; a copy keeps the old
  // socket valid.
  SharedFd socket() const { return socket_; }

 private:
  std::string_view folder() const;
  [[nodiscard]] std::uint32_t openPlace();
  [[nodiscard]] bool restrictAccess(int folder, const char* name) const;

  const PipeAccess access_;
  SocketPlace place_;
  SharedFd socket_;
  bool listening_ = false;
};

}  // namespace zelta::platform
