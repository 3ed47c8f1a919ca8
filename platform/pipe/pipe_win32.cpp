// Named pipes by Windows' own calls, one call per operation.
//
// A synchronous handle serialises its operations: disconnect, flush and write from another thread
// wait until a blocked read or connect has ended. Only CancelIoEx does not wait, so callers cancel
// before they disconnect. Wine does not serialise: a stop that works there proves nothing about
// this. CancelIoEx with nothing pending fails with ERROR_NOT_FOUND (1168) on Windows and succeeds
// under Wine.
#include <windows.h>
// windows.h comes first
#include <sddl.h>

#include <algorithm>

#include "platform/pipe/pipe.h"
#include "platform/process/never_destroyed.h"

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
    return CreateNamedPipeA(name.c_str(), arguments.openMode, arguments.pipeMode,
                            arguments.maxInstances, arguments.outBufferSize, arguments.inBufferSize,
                            arguments.defaultTimeout, &attributes);
  }

  bool connect(PipeHandleValue pipe) override { return ConnectNamedPipe(pipe, nullptr) != FALSE; }

  bool disconnect(PipeHandleValue pipe) override { return DisconnectNamedPipe(pipe) != FALSE; }

  bool cancel(PipeHandleValue pipe) override { return CancelIoEx(pipe, nullptr) != FALSE; }

  bool read(PipeHandleValue pipe, void* data, std::uint32_t size) override {
    // The count is not checked: the other end writes each field whole.
    DWORD transferred = 0;
    const bool read = ReadFile(pipe, data, size, &transferred, nullptr) != FALSE;
    // Callers do not initialise their buffers.
    if (read) std::fill_n(static_cast<std::uint8_t*>(data) + transferred, size - transferred, 0);
    return read;
  }

  bool write(PipeHandleValue pipe, const void* data, std::uint32_t size) override {
    DWORD transferred = 0;
    return WriteFile(pipe, data, size, &transferred, nullptr) != FALSE;
  }

  bool flush(PipeHandleValue pipe) override { return FlushFileBuffers(pipe) != FALSE; }

  bool close(PipeHandleValue pipe) override { return CloseHandle(pipe) != FALSE; }
};

}  // namespace

PipeApi& systemPipes() {
  static NeverDestroyed<Win32Pipes> pipes;
  return pipes.get();
}

}  // namespace zelta::platform
