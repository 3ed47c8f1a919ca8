// What the conformance suite of the pipes needs of an implementation, and how implementations may
// differ.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/pipe.h"
#include "tests/support/pipe_call.h"

namespace zelta::test {

using Bytes = std::vector<std::uint8_t>;

class PipeWorld {
 public:
  class Client {
   public:
    virtual ~Client() = default;  // closes
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
  // A second disconnect in a row fails; otherwise it does nothing.
  virtual bool secondDisconnectFails() const = 0;
  // Writes return once they have been read; otherwise once they are handed over.
  virtual bool writeWaitsForReader() const = 0;
  // Disconnect waits for a call that is blocked; otherwise it ends the call with 109 (or 995).
  virtual bool disconnectWaits() const = 0;
};

struct PipeWorldMaker {
  const char* name;
  std::unique_ptr<PipeWorld> (*make)();
};

}  // namespace zelta::test
