#include "platform/process/error.h"
#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/platform/pipe/pipe_worlds.h"

namespace zelta::test {

namespace {

class SerialisingWorld final : public PipeWorld {
 public:
  platform::PipeApi& pipes() override { return pipes_; }

  std::unique_ptr<Client> connect(const std::string& name) override {
    const SerialisingPipes::Client client = pipes_.connectClient(name);
    if (client == SerialisingPipes::kNoClient) return nullptr;
    return std::make_unique<SerialisingClient>(pipes_, client);
  }

  void waitUntilBlocked(platform::PipeHandleValue pipe, PipeCallThread&) override {
    pipes_.waitUntilQueued(pipe);
  }

  bool listensAfterDisconnect() const override { return false; }
  bool servesBeforeConnect() const override { return true; }
  std::uint32_t errorAfterDisconnect() const override { return platform::error::kPipeNotConnected; }
  bool secondDisconnectFails() const override { return true; }
  bool writeWaitsForReader() const override { return true; }
  bool disconnectWaits() const override { return true; }

 private:
  class SerialisingClient final : public Client {
   public:
    SerialisingClient(SerialisingPipes& pipes, SerialisingPipes::Client client)
        : pipes_(pipes), client_(client) {}
    ~SerialisingClient() override { pipes_.closeClient(client_); }
    bool write(const Bytes& bytes) override { return pipes_.clientWrite(client_, bytes); }
    Bytes read(std::size_t size) override { return pipes_.clientRead(client_, size); }
    bool waitForDrop() override { return pipes_.waitForDrop(client_); }

   private:
    SerialisingPipes& pipes_;
    const SerialisingPipes::Client client_;
  };

  SerialisingPipes pipes_;
};

}  // namespace

std::unique_ptr<PipeWorld> makeSerialisingPipeWorld() {
  return std::make_unique<SerialisingWorld>();
}

}  // namespace zelta::test
