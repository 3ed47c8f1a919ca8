// The reader's life and its two pipe ends.
#include "agent_link/pipe_reader.h"

#include "agent_link/wire.h"
#include "diagnostics/log.h"
#include "driver/memory_util.h"
#include "driver/smartcard_ioctl.h"
#include "platform/error.h"
#include "platform/ports.h"

namespace zelta {

namespace {

namespace error = platform::error;

// Who may open the pipes: nobody of the guests and no anonymous logon, which has to be said first,
// but the local service account and the system.
constexpr char kDacl[] = "D:";
constexpr char kDenyGuests[] = "(D;OICI;GA;;;BG)";
constexpr char kDenyAnonymous[] = "(D;OICI;GA;;;AN)";
constexpr char kAllowLocalService[] = "(A;OICI;GA;;;LS)";
constexpr char kAllowSystem[] = "(A;OICI;GA;;;SY)";

constexpr std::uint32_t kPipeAccessDuplex = 0x00000003;
constexpr std::uint32_t kFirstPipeInstance = 0x00080000;
constexpr std::uint32_t kByteModeBlocking = 0;

void disconnectPipe(PipeCalls& calls, const PipeHandle& pipe, const char* which) {
  if (!calls.close(pipe.get())) {
    logError(kNoError, "Failed to cancel IO on the %s named pipe. System error code: %d", which,
             static_cast<int>(platform::lastError()));
  }
  if (!platform::ports().pipes->disconnect(pipe.get())) {
    logError(kNoError, "Failed to disconnect the %s named pipe. System error code: %d", which,
             static_cast<int>(platform::lastError()));
  }
  calls.reopen();
}

}  // namespace

PipeReader::PipeReader(std::uint32_t readerIndex, ReaderDevice* owner, const AgentLinkTimes& times)
    : Reader(readerIndex, owner),
      times_(times),
      commandPipe_(platform::invalidPipe()),
      eventPipe_(platform::invalidPipe()),
      commandPipeName_(commandPipeName(readerIndex)),
      eventPipeName_(eventPipeName(readerIndex)) {
  rpcType_.store(0, std::memory_order_relaxed);
  server_ = std::thread([this] { runServer(); });
}

PipeReader::~PipeReader() {
  stopServer();
  disconnectPipes();
  server_.join();
}

void PipeReader::stopServer() {
  {
    const platform::MutexLock lock(stopMutex_);
    stop_.exchange(true);
  }
  stopCondition_.notifyAll();
  // No call on a pipe begins any more; `disconnectPipes` ends those that have begun.
  commandCalls_.stop();
  eventCalls_.stop();
  {
    // Whoever has seen the flag clear under this mutex is waiting by now.
    const platform::MutexLock lock(requestListMutex_);
  }
  insertRequestCondition_.notifyAll();
}

std::uint32_t PipeReader::createPipes() {
  const std::string sddl =
      std::string(kDacl) + kDenyGuests + kDenyAnonymous + kAllowLocalService + kAllowSystem;
  platform::SecurityDescriptor descriptor = nullptr;  // never freed, deliberately
  if (!platform::ports().pipes->convertSecurityDescriptor(sddl, &descriptor)) {
    const std::uint32_t code = platform::lastError();
    logError(code, "DACL cannot be created");
    return code;
  }

  const platform::MutexLock lock(pipeMutex_);
  commandPipe_ = PipeHandle();
  eventPipe_ = PipeHandle();
  if (!createPipe(commandPipeName_, descriptor, commandPipe_)) {
    const std::uint32_t code = platform::lastError();
    logError(code, "Failed to create command named pipe '%s'", commandPipeName_.c_str());
    return code;
  }
  logInfo("Command named pipe created:%s:%p", commandPipeName_.c_str(), commandPipe_.get());
  if (!createPipe(eventPipeName_, descriptor, eventPipe_)) {
    const std::uint32_t code = platform::lastError();
    logError(code, "Failed to create event named pipe '%s'", eventPipeName_.c_str());
    return code;
  }
  logInfo("Event pipe created:%s:%p", eventPipeName_.c_str(), eventPipe_.get());
  return error::kSuccess;
}

bool PipeReader::createPipe(const std::string& name, platform::SecurityDescriptor descriptor,
                            PipeHandle& pipe) {
  platform::PipeArguments arguments;
  arguments.openMode = kPipeAccessDuplex | kFirstPipeInstance;
  arguments.pipeMode = kByteModeBlocking;
  arguments.maxInstances = 1;
  arguments.securityDescriptor = descriptor;
  pipe = PipeHandle(platform::ports().pipes->create(name, arguments));
  return pipe.get() != platform::invalidPipe();
}

std::uint32_t PipeReader::connectPipes() {
  if (commandPipe_.get() == platform::noPipe()) {
    logError(kNoError, "Cannot connect to empty command named pipe handle");
    return error::kInvalidHandle;
  }
  if (eventPipe_.get() == platform::noPipe()) {
    logError(kNoError, "Cannot connect to empty event named pipe handle");
    return error::kInvalidHandle;
  }
  const std::uint32_t code = connectPipe(commandCalls_, commandPipe_, "Command");
  if (code != error::kSuccess) return code;
  return connectPipe(eventCalls_, eventPipe_, "Event");
}

std::uint32_t PipeReader::connectPipe(PipeCalls& calls, const PipeHandle& pipe, const char* which) {
  const bool connected = calls.run(
      calls.beginConnect(), [&pipe] { return platform::ports().pipes->connect(pipe.get()); });
  const std::uint32_t code = connected ? error::kSuccess : platform::lastError();
  if (connected || code == error::kPipeConnected || code == error::kIoPending) {
    calls.letIn();
    if (connected) logInfo("%s named pipe connected", which);
    return error::kSuccess;
  }
  logError(code, "%s named pipe NOT connected", which);
  // A client that came and went before it was let in bars the pipe until it is dropped.
  if (code == error::kNoData) dropVanishedClient(calls, pipe);
  return code;
}

// An exchange that was begun with that client must not go on with the next.
void PipeReader::dropVanishedClient(PipeCalls& calls, const PipeHandle& pipe) {
  const platform::MutexLock lock(pipeMutex_);
  calls.close(pipe.get());
  platform::ports().pipes->disconnect(pipe.get());
  calls.reopen();
}

void PipeReader::endExchanges() noexcept { commandCalls_.endExchanges(commandPipe_); }

void PipeReader::disconnectPipes() {
  const platform::MutexLock lock(pipeMutex_);
  disconnectPipe(eventCalls_, eventPipe_, "event");
  disconnectPipe(commandCalls_, commandPipe_, "command");
}

void PipeReader::IoSmartCardGetVendorDefinedAttribute(std::uint32_t tag, IoRequest& request) {
  switch (tag) {
    case PIPE_NAME:
      logDebug("[GATT]PIPE_NAME");
      MemoryUtil::setString(device(), request, commandPipeName_);
      break;
    case EVENT_PIPE_NAME:
      logDebug("[GATT]EVENT_PIPE_NAME");
      MemoryUtil::setString(device(), request, eventPipeName_);
      break;
    default:
      Reader::IoSmartCardGetVendorDefinedAttribute(tag, request);
      break;
  }
}

}  // namespace zelta
