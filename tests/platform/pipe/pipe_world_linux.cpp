#include "tests/platform/pipe/pipe_conformance.h"
#include "tests/support/pipes/pipe_client.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace {

class SystemWorld final : public PipeWorld {
 public:
  platform::PipeApi& pipes() override { return platform::systemPipes(); }

  std::unique_ptr<Client> connect(const std::string& name) override {
    auto client = std::make_unique<SystemClient>();
    if (!client->pipe.connect(name)) return nullptr;
    return client;
  }

  void waitUntilBlocked(platform::PipeHandleValue, PipeCallThread& call) override {
    call.waitUntilBlocked();
  }

 private:
  struct SystemClient final : public Client {
    bool write(const Bytes& bytes) override { return pipe.write(bytes); }
    Bytes read(std::size_t size) override { return pipe.read(size); }
    bool waitForDrop() override { return pipe.waitForDrop(); }
    PipeClient pipe;
  };

  TempFolder folder_;
  ScopedVariable root_{"ZELTA_PIPE_ROOT", folder_.path().string()};
};

}  // namespace

std::unique_ptr<PipeWorld> makeSystemPipeWorld() { return std::make_unique<SystemWorld>(); }

}  // namespace zelta::test
