// What the reader answers of itself: the names of its pipes, and how its server thread fares.
#include "agent_link/pipe_reader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "contract/bytes.h"
#include "contract/status.h"
#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/scripted_link.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

class Attributes : public ScriptedLink {
 protected:
  LinkRequest& ask(std::uint32_t tag) {
    LinkRequest& request = makeRequest(number(tag));
    reader().IoSmartCardGetAttribute(&request, 4, 4096);
    return request;
  }
  static std::string text(LinkRequest& request) {
    const std::vector<std::uint8_t> bytes = request.output();
    return std::string(bytes.begin(),
                       bytes.begin() + static_cast<std::ptrdiff_t>(request.information()));
  }
};

TEST_F(Attributes, PipeNamesAreAnsweredWithTheirTerminatingZero) {
  startCreated();
  LinkRequest& command = ask(0x0007A00A);
  EXPECT_EQ(command.status(), status::kSuccess);
  EXPECT_EQ(text(command), commandPipeName(0) + '\0');
  LinkRequest& event = ask(0x0007A00B);
  EXPECT_EQ(text(event), eventPipeName(0) + '\0');
  EXPECT_TRUE(log_.contains(debug("[GATT]PIPE_NAME")));
  EXPECT_TRUE(log_.contains(debug("[GATT]EVENT_PIPE_NAME")));
}

TEST_F(Attributes, OtherVendorAttributesAreTheReadersOwn) {
  startCreated();
  LinkRequest& rpcType = ask(0x0007A009);
  EXPECT_EQ(rpcType.status(), status::kSuccess);
  EXPECT_EQ(rpcType.information(), 4u);
  const std::vector<std::uint8_t> output = rpcType.output();
  EXPECT_EQ(std::vector<std::uint8_t>(output.begin(), output.begin() + 4), number(0));
  EXPECT_EQ(ask(0x0007A00C).status(), status::kNotSupported);
  EXPECT_TRUE(
      log_.contains(error(50, "[GATT]SCARD_CLASS_VENDOR_DEFINED: ERROR_NOT_SUPPORTED:0007A00C")));
}

class ServerResult : public Attributes {
 protected:
  static constexpr std::uint32_t kServerResult = 0x0007A010;

  std::uint32_t result() {
    LinkRequest& request = ask(kServerResult);
    EXPECT_EQ(request.status(), status::kSuccess);
    EXPECT_EQ(request.information(), 4u);
    return loadLittleEndian(request.output().data());
  }

  // What the server thread does last is logged before its result is there.
  bool becomes(std::uint32_t code) {
    for (const auto begin = std::chrono::steady_clock::now(); result() != code;) {
      if (std::chrono::steady_clock::now() - begin > 30s) return false;
      std::this_thread::yield();
    }
    return true;
  }
};

// The creation of the pipes, held up.
class SlowCreation : public platform::PipeApi {
 public:
  explicit SlowCreation(platform::PipeApi& pipes) : pipes_(pipes) {}
  void letGo() { go_.set_value(); }

  bool convertSecurityDescriptor(const std::string& sddl,
                                 platform::SecurityDescriptor* out) override {
    goes_.wait();
    return pipes_.convertSecurityDescriptor(sddl, out);
  }
  platform::PipeHandleValue create(const std::string& name,
                                   const platform::PipeArguments& arguments) override {
    return pipes_.create(name, arguments);
  }
  bool connect(platform::PipeHandleValue pipe) override { return pipes_.connect(pipe); }
  bool disconnect(platform::PipeHandleValue pipe) override { return pipes_.disconnect(pipe); }
  bool cancel(platform::PipeHandleValue pipe) override { return pipes_.cancel(pipe); }
  bool read(platform::PipeHandleValue pipe, void* data, std::uint32_t size) override {
    return pipes_.read(pipe, data, size);
  }
  bool write(platform::PipeHandleValue pipe, const void* data, std::uint32_t size) override {
    return pipes_.write(pipe, data, size);
  }
  bool flush(platform::PipeHandleValue pipe) override { return pipes_.flush(pipe); }
  bool close(platform::PipeHandleValue pipe) override { return pipes_.close(pipe); }

 private:
  platform::PipeApi& pipes_;
  std::promise<void> go_;
  std::shared_future<void> goes_ = go_.get_future().share();
};

TEST_F(ServerResult, IsPendingUntilThePipesAreCreatedAndThenZero) {
  SlowCreation slow(pipes_);
  const ScopedPipes scoped(slow);
  start();
  EXPECT_EQ(result(), platform::error::kIoPending);
  EXPECT_TRUE(log_.contains(info("[GATT]SERVER_RESULT")));
  slow.letGo();
  EXPECT_TRUE(becomes(0));
  stop();
}

TEST_F(ServerResult, OfAFailedCreationIsItsError) {
  pipes_.fail(PipeCallKind::kCreate, platform::error::kAccessDenied);
  start();
  EXPECT_TRUE(becomes(platform::error::kAccessDenied));
}

TEST_F(ServerResult, OfAThreadThatNobodyNeededIsInvalidState) {
  AgentLinkTimes times;
  times.insertRequest = 1ms;
  start(times);
  ASSERT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
  EXPECT_EQ(result(), platform::error::kInvalidState) << "published later than decided";
}

// The request is gone again when the thread that it has woken looks for it.
TEST_F(ServerResult, OfAThreadWhoseRequestIsCancelledAsItWakesIsZero) {
  pipes_.fail(PipeCallKind::kConnect, platform::error::kGenFailure, 1, ScriptedPipes::kForever);
  AgentLinkTimes times;
  times.insertRequest = std::chrono::minutes(10);
  times.reconnect = 0ms;
  startCreated(times);
  ASSERT_TRUE(becomes(0));
  const auto wakes = static_cast<std::size_t>(repetitions(1000));
  while (pipes_.calls(PipeCallKind::kConnect).size() < wakes) {
    for (int i = 0; i < 10; ++i) {
      LinkRequest request(device_);
      reader().IoSmartCardIsPresent(&request, 0, 0);
      request.cancel();
      ASSERT_EQ(request.status(), status::kCancelled);
    }
    log_.clear();
    ASSERT_EQ(result(), 0u);
  }
}

// If it answers 0 after a request waits, the thread serves that request.
TEST_F(ServerResult, ZeroMeansThatAWaitingRequestIsServed) {
  AgentLinkTimes times;
  int served = 0;
  for (int round = 0; round < repetitions(200); ++round) {
    log_.clear();
    const bool inTime = round % 2 == 1;  // else at the last moment or too late
    times.insertRequest = inTime ? 60000ms : 1ms;
    start(times);
    if (inTime) {
      ASSERT_TRUE(waitUntilCreated());
    }
    LinkRequest& insertion = makeRequest();
    reader().IoSmartCardIsPresent(&insertion, 0, 0);
    if (result() == 0) {
      ++served;
      ASSERT_TRUE(log_.waitFor("Command named pipe connected")) << "round " << round;
    }
    stop();
  }
  EXPECT_GT(served, 0);
}

}  // namespace
}  // namespace zelta::test
