// Server ends of local byte-stream pipes, in the terms of the operating system's named pipes.
//
// One pipe end admits one client at a time. Calls block; `cancel` from another thread releases
// them. A failing call returns false (or `invalidPipe()`) and leaves its reason in the calling
// thread's last error (platform/error.h). Any call may be made from any thread, also at the same
// time as others on the same handle, except that nothing may follow or overlap `close`.
//
// `cancel` fails with 1168 where nothing is blocked. Every call fails with 6 for a handle that is
// no pipe's.
//
// Where an operation begins just after a `cancel` it is not cancelled: a caller that must not
// block keeps a flag of its own and cancels until the operation has ended.
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

// The arguments of the system's pipe creation beside the name.
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
  // Creates the one server end of a name; the name must not be in use (error 5 where it is).
  virtual PipeHandleValue create(const std::string& name, const PipeArguments& arguments) = 0;
  // Waits for a client. Fails with 535 where the client was there first (a good connection) and
  // with 995 when cancelled.
  virtual bool connect(PipeHandleValue pipe) = 0;
  // Drops the client with whatever it has not read or been read; the end can be connected again.
  virtual bool disconnect(PipeHandleValue pipe) = 0;
  // Releases every operation of the process that is blocked on the pipe; 1168 where none is.
  virtual bool cancel(PipeHandleValue pipe) = 0;
  // Reads `size` bytes: 109 the client is gone, 536 there is none, 995 cancelled. What a client
  // left is read, unless a write or flush has found it gone.
  virtual bool read(PipeHandleValue pipe, void* data, std::uint32_t size) = 0;
  // Writes `size` bytes: 109 or 232 the client is gone, 536 there is none, 995 cancelled.
  virtual bool write(PipeHandleValue pipe, const void* data, std::uint32_t size) = 0;
  // Returns once the client has read everything written: 109 if it is gone before, 536 there is
  // none, 995 cancelled. This is the barrier of an exchange: a client that a write or flush finds
  // gone stays gone, so that what it left, which answers a command that was given up, is never read
  // as the answer to the new one. A client that has read everything and then left is not found
  // gone: its answer may be read. On Linux it is if bytes were unread when the command began.
  virtual bool flush(PipeHandleValue pipe) = 0;
  virtual bool close(PipeHandleValue pipe) = 0;
};

// The operating system's pipes. On Windows, with buffer sizes of 0,
//   - the pipe keeps nothing: write returns when the client has read the bytes, and a client's
//     write when they have been read here; what nobody has read when its writer leaves is lost;
//   - read returns with the bytes that are there, which may be fewer than `size`, and is a success;
//   - after a disconnect a client is turned away (231) until the end is being connected, and read
//     and write fail with 233;
//   - create fails with 231 for a name in use that has one instance;
//   - a client may come from create on, and is read from and written to though connect has not let
//     it in yet;
//   - operations on one pipe wait for each other, except cancel.
// On Linux a pipe is a UNIX stream socket below $ZELTA_PIPE_ROOT
// (platform/pipe_path.h), and
//   - it is duplex and has one instance, whatever the arguments beside the descriptor say; without
//     a descriptor it admits the process's own user and the system;
//   - create fails with 123 for a name without a path, 206 for a path too long for a socket, 1338
//     for a descriptor that was not converted here, 4 where no file descriptor is left;
//   - it can be reached from create on, and again when disconnect returns; read, write and flush
//     without a client always fail with 536;
//   - a client that is connected but was not let in by `connect` yet is nobody's: disconnect lets
//     it wait on. One that has gone before it was let in is passed over;
//   - write returns when the bytes are handed to the client's socket. There the client can read
//     them even after a disconnect, which takes back nothing but what the server did not read;
//   - a client that was found gone stays so until disconnect, or a connect that lets in another:
//     every later read, write and flush fails with 109, even if bytes from it are left;
//   - read, write, flush, cancel and a connect's wait need no descriptor and no memory;
//   - disconnect and close end the operations in progress (109, a connect 995) instead of waiting
//     for them, and return when those have ended;
//   - connect lets another client in where the one it had has gone.
PipeApi& systemPipes();

}  // namespace zelta::platform
