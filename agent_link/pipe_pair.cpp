#include "agent_link/pipe_pair.h"

#include "contract/wire.h"
#include "diagnostics/log.h"
#include "platform/process/error.h"
#include "platform/process/ports.h"

namespace zelta {

namespace {

namespace error = platform::error;

// Who may open the pipes: the local service account and the system, but no guest and no anonymous
// logon. The denials must come first to take effect.
constexpr char kDacl[] = "D:";
constexpr char kDenyGuests[] = "(D;OICI;GA;;;BG)";
constexpr char kDenyAnonymous[] = "(D;OICI;GA;;;AN)";
constexpr char kAllowLocalService[] = "(A;OICI;GA;;;LS)";
constexpr char kAllowSystem[] = "(A;OICI;GA;;;SY)";

constexpr std::uint32_t kPipeAccessDuplex = 0x00000003;
constexpr std::uint32_t kFirstPipeInstance = 0x00080000;
constexpr std::uint32_t kByteModeBlocking = 0;

// Only 0 counts as no pipe here; the result of a failed creation fails in the connect.
bool isEmpty(const CancelablePipe& pipe) {
  if (pipe.handle() != platform::noPipe()) return false;
  logError(kNoError, "Cannot connect to empty %s named pipe handle", pipe.label());
  return true;
}

}  // namespace

PipePair::PipePair(std::uint32_t readerIndex)
    : command_("command", commandPipeName(readerIndex)),
      event_("event", eventPipeName(readerIndex)) {}

std::uint32_t PipePair::create() {
  const std::string sddl =
      std::string(kDacl) + kDenyGuests + kDenyAnonymous + kAllowLocalService + kAllowSystem;
  platform::SecurityDescriptor descriptor = nullptr;  // Intentional: never freed.
  if (!platform::ports().pipes->convertSecurityDescriptor(sddl, &descriptor)) {
    const std::uint32_t code = platform::lastError();
    logError(code, "DACL cannot be created");
    return code;
  }
  const platform::MutexLock lock(mutex_);
  command_.hold(PipeHandle());
  event_.hold(PipeHandle());
  // The log lines for the two pipes differ.
  const std::uint32_t code = createPipe(command_, descriptor, "Command named pipe");
  return code != error::kSuccess ? code : createPipe(event_, descriptor, "Event pipe");
}

std::uint32_t PipePair::createPipe(CancelablePipe& pipe, platform::SecurityDescriptor descriptor,
                                   const char* title) {
  platform::PipeArguments arguments;
  arguments.openMode = kPipeAccessDuplex | kFirstPipeInstance;
  arguments.pipeMode = kByteModeBlocking;
  arguments.maxInstances = 1;
  arguments.securityDescriptor = descriptor;
  pipe.hold(PipeHandle(platform::ports().pipes->create(pipe.name(), arguments)));
  if (pipe.handle() == platform::invalidPipe()) {
    const std::uint32_t code = platform::lastError();
    logError(code, "Failed to create %s named pipe '%s'", pipe.label(), pipe.name().c_str());
    return code;
  }
  logInfo("%s created:%s:%p", title, pipe.name().c_str(), pipe.handle());
  return error::kSuccess;
}

std::uint32_t PipePair::connect() {
  if (isEmpty(command_) || isEmpty(event_)) return error::kInvalidHandle;
  const std::uint32_t code = connectPipe(command_, "Command");
  return code != error::kSuccess ? code : connectPipe(event_, "Event");
}

std::uint32_t PipePair::connectPipe(CancelablePipe& pipe, const char* title) {
  const std::uint32_t code = pipe.connect();
  switch (code) {
    case error::kSuccess:
      logInfo("%s named pipe connected", title);
      return code;
    case error::kPipeConnected:
    case error::kIoPending:
      return error::kSuccess;
    default:
      break;
  }
  logError(code, "%s named pipe NOT connected", title);
  if (code == error::kNoData) {
    // The client has gone. An exchange that was begun with it must not go on with the next.
    const platform::MutexLock lock(mutex_);
    pipe.disconnect();
  }
  return code;
}

void PipePair::disconnect() {
  const platform::MutexLock lock(mutex_);
  disconnectPipe(event_);
  disconnectPipe(command_);
}

void PipePair::disconnectPipe(CancelablePipe& pipe) {
  const CancelablePipe::DisconnectErrors errors = pipe.disconnect();
  if (errors.cancel != error::kSuccess) {
    logError(kNoError, "Failed to cancel IO on the %s named pipe. System error code: %d",
             pipe.label(), static_cast<int>(errors.cancel));
  }
  if (errors.disconnect != error::kSuccess) {
    logError(kNoError, "Failed to disconnect the %s named pipe. System error code: %d",
             pipe.label(), static_cast<int>(errors.disconnect));
  }
}

void PipePair::stop() {
  command_.stop();
  event_.stop();
}

}  // namespace zelta
