// Named pipes by Windows' own calls, one call per operation.
//
// A synchronous handle serialises its operations: disconnect, flush and write from another thread
// wait behind a blocked read or connect, and only CancelIoEx does not. Wine does not serialise, so
// a stop that runs clean there proves nothing about this. Callers cancel before they disconnect.
// CancelIoEx with nothing pending fails with 1168 on Windows and succeeds under Wine.
//
// Windows lets a client open a pipe that nobody has connected yet, and carries its bytes. The
// driver would talk to an agent that it has not let in, and then never let it in; so such a client
// counts as none here, as it does on Linux. After a disconnect the system itself admits nobody
// until the pipe is being connected.
#include <windows.h>
// windows.h comes first
#include <sddl.h>

#include <new>
#include <set>

#include "platform/never_destroyed.h"
#include "platform/pipe.h"
#include "platform/sync.h"

namespace zelta::platform {

namespace {

static_assert(sizeof(SECURITY_ATTRIBUTES) == 24, "the 64-bit layout");

class Win32Pipes final : public PipeApi {
 public:
  bool convertSecurityDescriptor(const std::string& sddl, SecurityDescriptor* out) override {
    return ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl.c_str(), SDDL_REVISION_1, out,
                                                                nullptr) != FALSE;
  }

  PipeHandleValue create(const std::string& name, const PipeArguments& arguments) override {
    SECURITY_ATTRIBUTES attributes = {sizeof(SECURITY_ATTRIBUTES), arguments.securityDescriptor,
                                      FALSE};
    const MutexLock lock(mutex_);  // nobody closes another pipe of that value in between
    HANDLE pipe = CreateNamedPipeA(name.c_str(), arguments.openMode, arguments.pipeMode,
                                   arguments.maxInstances, arguments.outBufferSize,
                                   arguments.inBufferSize, arguments.defaultTimeout, &attributes);
    if (pipe == INVALID_HANDLE_VALUE || noteNeverConnected(pipe)) return pipe;
    CloseHandle(pipe);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return INVALID_HANDLE_VALUE;
  }

  bool connect(PipeHandleValue pipe) override {
    const bool connected = ConnectNamedPipe(pipe, nullptr) != FALSE;
    const DWORD error = GetLastError();
    if (connected || error == ERROR_PIPE_CONNECTED) {
      const MutexLock lock(mutex_);
      neverConnected_.erase(pipe);
    }
    SetLastError(error);
    return connected;
  }

  bool disconnect(PipeHandleValue pipe) override { return DisconnectNamedPipe(pipe) != FALSE; }

  bool cancel(PipeHandleValue pipe) override { return CancelIoEx(pipe, nullptr) != FALSE; }

  bool read(PipeHandleValue pipe, void* data, std::uint32_t size) override {
    if (refuses(pipe)) return false;
    // The count is not looked at: the other end writes each field whole.
    DWORD transferred = 0;
    return ReadFile(pipe, data, size, &transferred, nullptr) != FALSE;
  }

  bool write(PipeHandleValue pipe, const void* data, std::uint32_t size) override {
    if (refuses(pipe)) return false;
    DWORD transferred = 0;
    return WriteFile(pipe, data, size, &transferred, nullptr) != FALSE;
  }

  bool flush(PipeHandleValue pipe) override { return FlushFileBuffers(pipe) != FALSE; }

  bool close(PipeHandleValue pipe) override {
    const MutexLock lock(mutex_);
    neverConnected_.erase(pipe);
    return CloseHandle(pipe) != FALSE;
  }

 private:
  bool noteNeverConnected(PipeHandleValue pipe) noexcept ZELTA_REQUIRES(mutex_) {
    try {
      neverConnected_.insert(pipe);
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }

  bool refuses(PipeHandleValue pipe) {
    const MutexLock lock(mutex_);
    if (neverConnected_.count(pipe) == 0) return false;
    SetLastError(ERROR_PIPE_LISTENING);
    return true;
  }

  Mutex mutex_;
  std::set<PipeHandleValue> neverConnected_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace

PipeApi& systemPipes() {
  static NeverDestroyed<Win32Pipes> pipes;
  return pipes.get();
}

}  // namespace zelta::platform
