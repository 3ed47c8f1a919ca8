// Server ends of local byte-stream pipes, in the terms of the operating system's named pipes.
//
// One pipe end admits one client at a time. Calls block; `cancel` from another thread ends them. A
// failing call returns false (or `invalidPipe()`) and leaves its reason in the calling thread's
// last error (process/error.h). Any call may be made from any thread, also at the same time as
// others on the same handle, except that nothing may follow or overlap `close`.
//
// Every call fails with ERROR_INVALID_HANDLE (6) for a handle that is not a pipe's. An operation
// that begins just after a `cancel` is not cancelled: a caller that must not block keeps its own
// flag and cancels until the operation has ended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelta::platform {

// An operating system's pipe handle. Two values stand for none: 0 and all bits set.
using PipeHandleValue = void*;
inline PipeHandleValue noPipe() { return nullptr; }
inline PipeHandleValue invalidPipe() {
  return reinterpret_cast<PipeHandleValue>(~static_cast<std::uintptr_t>(0));
}

// A self-relative security descriptor of the system; opaque, never freed.
using SecurityDescriptor = void*;

// The arguments of the system's pipe creation besides the name.
struct PipeArguments {
  std::uint32_t openMode = 0;
  std::uint32_t pipeMode = 0;
  std::uint32_t maxInstances = 0;
  std::uint32_t outBufferSize = 0;   // bytes
  std::uint32_t inBufferSize = 0;    // bytes
  std::uint32_t defaultTimeout = 0;  // milliseconds, 0 is the system's default
  SecurityDescriptor securityDescriptor = nullptr;
};

class PipeApi {
 public:
  virtual ~PipeApi() = default;

  // Converts a security descriptor string (SDDL revision 1). The result is the caller's for good.
  virtual bool convertSecurityDescriptor(const std::string& sddl, SecurityDescriptor* out) = 0;
  // Creates the one server end of a name. If the name is in use this fails with
  // ERROR_ACCESS_DENIED (5).
  virtual PipeHandleValue create(const std::string& name, const PipeArguments& arguments) = 0;
  // Waits for a client. Fails with ERROR_PIPE_CONNECTED (535) if the client was there first (a good
  // connection) and with ERROR_OPERATION_ABORTED (995) when cancelled.
  virtual bool connect(PipeHandleValue pipe) = 0;
  // Drops the client with all unread bytes of either side; the end can be connected again.
  virtual bool disconnect(PipeHandleValue pipe) = 0;
  // Ends every operation of the process that is blocked on the pipe. Fails with
  // ERROR_NOT_FOUND (1168) if none is.
  virtual bool cancel(PipeHandleValue pipe) = 0;
  // Read, write and flush fail with ERROR_BROKEN_PIPE (109) if the client is gone (a write perhaps
  // with ERROR_NO_DATA (232)), with ERROR_PIPE_LISTENING (536) if there is none, and with
  // ERROR_OPERATION_ABORTED (995) when cancelled.
  //
  // Reads `size` bytes. What a client sent before it left can still be read, unless a write or
  // flush has found it gone. On Windows a read also ends with the client's write; bytes that were
  // not sent are zero.
  virtual bool read(PipeHandleValue pipe, void* data, std::uint32_t size) = 0;
  // Writes `size` bytes.
  virtual bool write(PipeHandleValue pipe, const void* data, std::uint32_t size) = 0;
  // Returns once the client has read everything written. A client that a write or flush finds gone
  // stays gone; otherwise its answer to a command that was given up could be read as the answer to
  // the new one. A client that has read everything and then left is not found gone, so that its
  // answer can be read; on Linux it is, if bytes from it were unread when the command began.
  virtual bool flush(PipeHandleValue pipe) = 0;
  virtual bool close(PipeHandleValue pipe) = 0;
};

// The operating system's pipes. On Windows, with buffer sizes of 0,
//   - the pipe keeps nothing: write returns when the client has read the bytes, and a client's
//     write when they have been read here; unread bytes are lost when their writer leaves;
//   - read returns with the bytes that are there, which may be fewer than `size`, and is a success;
//   - after a disconnect a client is turned away (ERROR_PIPE_BUSY (231)) until the end is being
//     connected, and read and write fail with ERROR_PIPE_NOT_CONNECTED (233);
//   - create fails with ERROR_PIPE_BUSY (231) for a name in use that has one instance;
//   - a client may come after create, and is read from and written to even before connect has
//     let it in;
//   - operations on one pipe wait for each other, except cancel.
// On Linux a pipe is a UNIX stream socket below $ZELTA_PIPE_ROOT (pipe_path.h), and
//   - it is duplex and has one instance, whatever the arguments besides the descriptor say; without
//     a descriptor it admits the process's own user and the system;
//   - create fails with ERROR_INVALID_NAME (123) for a name without a path,
//     ERROR_FILENAME_EXCED_RANGE (206) for a path too long for a socket,
//     ERROR_INVALID_SECURITY_DESCR (1338) for a descriptor that was not converted here, and
//     ERROR_TOO_MANY_OPEN_FILES (4) if no file descriptor is left;
//   - it can be reached after create, and again when disconnect returns; read, write and flush
//     without a client always fail with ERROR_PIPE_LISTENING (536);
//   - a client that is connected but was not let in by `connect` yet is nobody's: disconnect lets
//     it wait on. One that has gone before it was let in is passed over;
//   - write returns when the bytes are handed to the client's socket. There the client can read
//     them even after a disconnect, which discards only bytes that the server did not read;
//   - a client that was found gone stays so until disconnect, or a connect that lets in another:
//     every later read, write and flush fails with ERROR_BROKEN_PIPE (109), even if bytes from it
//     are left;
//   - read, write, flush, cancel and a connect's wait need no descriptor and no memory;
//   - disconnect and close end the operations in progress with ERROR_BROKEN_PIPE (109), a connect
//     with ERROR_OPERATION_ABORTED (995), instead of waiting for them, and return when those have
//     ended;
//   - connect lets another client in if the one it had has gone.
PipeApi& systemPipes();

}  // namespace zelta::platform
