#include <windows.h>
// windows.h comes first
#include <list>

#include "platform/process/error.h"
#include "tests/platform/pipe/pipe_worlds.h"
#include "tests/support/pipe_client.h"
#include "tests/support/system.h"

namespace zelta::test {

namespace {

namespace error = platform::error;

// A client whose writes stand until the pipe's end reads them or the client leaves.
class SystemClient final : public PipeWorld::Client {
 public:
  explicit SystemClient(HANDLE pipe) : pipe_(pipe) {}
  ~SystemClient() override {
    CancelIoEx(pipe_, nullptr);
    for (Operation& each : writes_) finish(each);
    CloseHandle(pipe_);
  }
  SystemClient(const SystemClient&) = delete;
  SystemClient& operator=(const SystemClient&) = delete;

  bool write(const Bytes& bytes) override {
    Operation& begun = writes_.emplace_back(bytes);
    if (WriteFile(pipe_, begun.bytes.data(), static_cast<DWORD>(begun.bytes.size()), nullptr,
                  &begun.overlapped) ||
        GetLastError() == ERROR_IO_PENDING) {
      return true;
    }
    writes_.pop_back();
    return false;
  }

  Bytes read(std::size_t size) override {
    Bytes all;
    while (all.size() < size) {
      Operation part(Bytes(size - all.size()));
      if (!readPart(part)) break;
      all.insert(all.end(), part.bytes.begin(), part.bytes.end());
    }
    return all;
  }

  bool waitForDrop() override {
    Operation none(Bytes(1));
    if (readPart(none)) return false;
    const DWORD reason = GetLastError();
    return reason == ERROR_BROKEN_PIPE || reason == ERROR_PIPE_NOT_CONNECTED;
  }

 private:
  struct Operation {
    explicit Operation(Bytes content) : bytes(std::move(content)) {
      overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    ~Operation() { CloseHandle(overlapped.hEvent); }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    Bytes bytes;
    OVERLAPPED overlapped{};
  };

  // Waits for at most `PipeClient::kLimit`; the bytes are as many as came then.
  bool readPart(Operation& part) {
    if (!ReadFile(pipe_, part.bytes.data(), static_cast<DWORD>(part.bytes.size()), nullptr,
                  &part.overlapped) &&
        GetLastError() != ERROR_IO_PENDING) {
      return false;
    }
    const auto limit = static_cast<DWORD>(PipeClient::kLimit.count());
    if (WaitForSingleObject(part.overlapped.hEvent, limit) != WAIT_OBJECT_0) {
      CancelIoEx(pipe_, &part.overlapped);
    }
    return finish(part);
  }

  bool finish(Operation& operation) {
    DWORD count = 0;
    const bool done = GetOverlappedResult(pipe_, &operation.overlapped, &count, TRUE) != FALSE;
    if (done) operation.bytes.resize(count);
    return done;
  }

  const HANDLE pipe_;
  std::list<Operation> writes_;  // begun; their bytes must stay where they are
};

// Wine does not serialise the operations of a handle, finds something to cancel and to flush where
// there is nothing, and does not disconnect a pipe that no client has opened.
class SystemWorld final : public PipeWorld {
 public:
  platform::PipeApi& pipes() override { return platform::systemPipes(); }

  std::unique_ptr<Client> connect(const std::string& name) override {
    HANDLE pipe = CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              FILE_FLAG_OVERLAPPED, nullptr);
    if (pipe == INVALID_HANDLE_VALUE) return nullptr;
    return std::make_unique<SystemClient>(pipe);
  }

  void waitUntilBlocked(platform::PipeHandleValue, PipeCallThread& call) override {
    call.waitUntilBlocked();
  }

  bool listensAfterDisconnect() const override { return kPipesListenAfterDisconnect; }
  bool servesBeforeConnect() const override { return true; }
  std::uint32_t errorAfterDisconnect() const override { return error::kPipeNotConnected; }
  // Where one instance is the limit, before the first-instance flag counts.
  std::uint32_t errorOfNameInUse() const override { return kPipeNameInUse; }
  bool refusesEmptyDescriptor() const override { return false; }
  // It is the number of the process itself, too.
  PipeOutcome cancelOfInvalidPipe() const override {
    return wine_ ? kPipeOk : pipeError(error::kInvalidHandle);
  }
  PipeOutcome closeOfInvalidPipe() const override { return kPipeOk; }
  PipeOutcome flushWithoutClient() const override {
    return wine_ ? kPipeOk : pipeError(error::kPipeListening);
  }
  PipeOutcome flushAfterDisconnect() const override {
    return wine_ ? kPipeOk : pipeError(error::kPipeNotConnected);
  }
  PipeOutcome cancelOfNothing() const override {
    return wine_ ? kPipeOk : pipeError(error::kNotFound);
  }
  PipeOutcome disconnectWithoutClient() const override {
    return wine_ ? pipeError(error::kPipeListening) : kPipeOk;
  }
  bool readReturnsWhatIsThere() const override { return !kReadsWaitForAllBytes; }
  bool leavingClientTakesItsBytes() const override { return true; }
  bool secondDisconnectFails() const override { return true; }
  bool writeWaitsForReader() const override { return !kPipesKeepBytes; }
  bool disconnectWaits() const override { return !wine_; }
  std::uint32_t errorOfDroppedRead() const override { return error::kPipeNotConnected; }

 private:
  const bool wine_ = underWine();
};

}  // namespace

std::unique_ptr<PipeWorld> makeSystemPipeWorld() { return std::make_unique<SystemWorld>(); }

}  // namespace zelta::test
