#include <windows.h>
// windows.h comes first
#include <list>

#include "tests/platform/pipe/pipe_conformance.h"
#include "tests/support/pipes/pipe_client.h"
#include "tests/support/system.h"

namespace zelta::test {

namespace {

// A client whose writes stay pending until the pipe's end reads them or the client leaves.
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

  // Waits for at most `PipeClient::kLimit`; gives the bytes that have come by then.
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

// Wine does not serialise a handle's operations, reports a cancel or flush as successful even if
// there is nothing pending, and does not disconnect a pipe that no client has opened.
class SystemWorld final : public PipeWorld {
 public:
  SystemWorld() {
    const bool wine = underWine();
    differences.listensAfterDisconnect = kPipesListenAfterDisconnect;
    differences.servesBeforeConnect = true;
    differences.readReturnsWhatIsThere = !kReadsWaitForAllBytes;
    differences.leavingClientTakesItsBytes = true;
    differences.writeWaitsForReader = !kPipesKeepBytes;
    differences.disconnectWaits = !wine;
    differences.refusesEmptyDescriptor = false;
    // If one instance is the limit, that counts before the first-instance flag does.
    differences.nameInUse = kPipeNameInUse;
    differences.transferAfterDisconnect = error::kPipeNotConnected;
    differences.readThatDisconnectEnds = error::kPipeNotConnected;
    // The value is also the pseudo-handle of the process.
    differences.cancelOfInvalidPipe = wine ? kPipeOk : pipeError(error::kInvalidHandle);
    differences.closeOfInvalidPipe = kPipeOk;
    differences.cancelOfNothing = wine ? kPipeOk : pipeError(error::kNotFound);
    differences.flushWithoutClient = wine ? kPipeOk : pipeError(error::kPipeListening);
    differences.flushAfterDisconnect = wine ? kPipeOk : pipeError(error::kPipeNotConnected);
    differences.disconnectWithoutClient = wine ? pipeError(error::kPipeListening) : kPipeOk;
    differences.secondDisconnect = pipeError(error::kPipeNotConnected);
  }

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
};

}  // namespace

std::unique_ptr<PipeWorld> makeSystemPipeWorld() { return std::make_unique<SystemWorld>(); }

}  // namespace zelta::test
