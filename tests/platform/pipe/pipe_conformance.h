// The conformance suite's interface to an implementation of the pipes, and the permitted
// differences.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/pipe/pipe.h"
#include "platform/process/error.h"
#include "tests/support/pipes/pipe_call.h"

namespace zelta::test {

using Bytes = std::vector<std::uint8_t>;
namespace error = platform::error;

// The defaults are those of Linux.
struct PipeDifferences {
  // A pipe takes clients again as soon as it has been disconnected; otherwise when it is connected.
  bool listensAfterDisconnect = true;
  // A client is read from and written to before connect has let it in; otherwise only after that.
  bool servesBeforeConnect = false;
  // A read returns as soon as there are bytes, and waits even if none are asked for; otherwise it
  // waits for as many as are asked for.
  bool readReturnsWhatIsThere = false;
  // A client's bytes that the pipe has not read are lost when the client leaves.
  bool leavingClientTakesItsBytes = false;
  // Writes return once they have been read; otherwise once they are handed over.
  bool writeWaitsForReader = false;
  // Disconnect waits for a call that is blocked; otherwise it ends the call.
  bool disconnectWaits = false;
  // An empty text is refused as a security descriptor; otherwise it is one without entries.
  bool refusesEmptyDescriptor = true;

  std::uint32_t nameInUse = error::kAccessDenied;
  std::uint32_t transferAfterDisconnect = error::kPipeListening;
  std::uint32_t readThatDisconnectEnds = error::kBrokenPipe;
  // Outcomes of calls on the value that stands for a failed creation.
  PipeOutcome cancelOfInvalidPipe = pipeError(error::kInvalidHandle);
  PipeOutcome closeOfInvalidPipe = pipeError(error::kInvalidHandle);
  // Outcomes of calls that find nothing to do.
  PipeOutcome cancelOfNothing = pipeError(error::kNotFound);
  PipeOutcome flushWithoutClient = pipeError(error::kPipeListening);
  PipeOutcome flushAfterDisconnect = pipeError(error::kPipeListening);
  PipeOutcome disconnectWithoutClient = kPipeOk;
  PipeOutcome secondDisconnect = kPipeOk;
};

class PipeWorld {
 public:
  class Client {
   public:
    virtual ~Client() = default;  // closes
    // Does not wait for the pipe's reader.
    virtual bool write(const Bytes& bytes) = 0;
    virtual Bytes read(std::size_t size) = 0;
    virtual bool waitForDrop() = 0;
  };

  virtual ~PipeWorld() = default;
  virtual platform::PipeApi& pipes() = 0;
  // Null if the pipe turns the client away.
  virtual std::unique_ptr<Client> connect(const std::string& name) = 0;
  // Returns when the call, made on the pipe and the only one in progress, is blocked.
  virtual void waitUntilBlocked(platform::PipeHandleValue pipe, PipeCallThread& call) = 0;

  PipeDifferences differences;
};

std::unique_ptr<PipeWorld> makeSystemPipeWorld();

}  // namespace zelta::test
