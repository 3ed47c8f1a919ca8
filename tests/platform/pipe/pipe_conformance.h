// What the conformance suite of the pipes needs of an implementation, and how implementations may
// differ.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/pipe/pipe.h"
#include "platform/process/error.h"
#include "tests/support/pipe_call.h"

namespace zelta::test {

using Bytes = std::vector<std::uint8_t>;

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
  // Null where the pipe turns the client away.
  virtual std::unique_ptr<Client> connect(const std::string& name) = 0;
  // Returns when the call, made on the pipe and the only one in progress, is blocked.
  virtual void waitUntilBlocked(platform::PipeHandleValue pipe, PipeCallThread& call) = 0;

  // Differences.
  // A pipe takes clients again as soon as it has been disconnected; otherwise once it is being
  // connected.
  virtual bool listensAfterDisconnect() const = 0;
  // What a read, write or flush between disconnect and connect fails with.
  virtual std::uint32_t errorAfterDisconnect() const = 0;
  // A client is read from and written to though no connect has let it in; otherwise it is nobody.
  virtual bool servesBeforeConnect() const = 0;
  // What creating a name that is in use fails with.
  virtual std::uint32_t errorOfNameInUse() const { return platform::error::kAccessDenied; }
  // An empty text is refused as a security descriptor; otherwise it is one without entries.
  virtual bool refusesEmptyDescriptor() const { return true; }
  // What cancelling and closing the value that stands for a failed creation give.
  virtual PipeOutcome cancelOfInvalidPipe() const {
    return pipeError(platform::error::kInvalidHandle);
  }
  virtual PipeOutcome closeOfInvalidPipe() const {
    return pipeError(platform::error::kInvalidHandle);
  }
  // What a flush gives where no client has come since the creation, or since a disconnect.
  virtual PipeOutcome flushWithoutClient() const {
    return pipeError(platform::error::kPipeListening);
  }
  virtual PipeOutcome flushAfterDisconnect() const { return pipeError(errorAfterDisconnect()); }
  // What a cancel gives where nothing is blocked.
  virtual PipeOutcome cancelOfNothing() const { return pipeError(platform::error::kNotFound); }
  // What a disconnect gives where no client has come.
  virtual PipeOutcome disconnectWithoutClient() const { return kPipeOk; }
  // A read returns as soon as there are bytes, and waits also where none are asked for; otherwise
  // it waits for as many as are asked for.
  virtual bool readReturnsWhatIsThere() const { return false; }
  // What a client has written and the pipe has not read is lost when the client leaves.
  virtual bool leavingClientTakesItsBytes() const { return false; }
  // A second disconnect in a row fails; otherwise it does nothing.
  virtual bool secondDisconnectFails() const = 0;
  // Writes return once they have been read; otherwise once they are handed over.
  virtual bool writeWaitsForReader() const = 0;
  // Disconnect waits for a call that is blocked; otherwise it ends the call.
  virtual bool disconnectWaits() const = 0;
  // What a read fails with that is ended so.
  virtual std::uint32_t errorOfDroppedRead() const { return platform::error::kBrokenPipe; }
};

struct PipeWorldMaker {
  const char* name;
  std::unique_ptr<PipeWorld> (*make)();
};

}  // namespace zelta::test
