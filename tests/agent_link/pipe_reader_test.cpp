// The reader's answers about itself: the names of its pipes, and the state of its server thread.
#include "agent_link/pipe_reader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/scripted_link.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

class PipeReaderAttributes : public ScriptedLink {
 protected:
  FakeRequest& ask(std::uint32_t tag) {
    FakeRequest& request = makeRequest(number(tag));
    reader().IoSmartCardGetAttribute(&request, 4, 4096);
    return request;
  }
  std::string text(std::uint32_t tag) {
    const Bytes bytes = ask(tag).answer();
    return std::string(bytes.begin(), bytes.end());
  }
};

TEST_F(PipeReaderAttributes, PipeNames_AreAnsweredWithTheirTerminatingZero) {
  startCreated();
  EXPECT_EQ(text(0x0007A00A), commandPipeName(0) + '\0');
  EXPECT_EQ(text(0x0007A00B), eventPipeName(0) + '\0');
  EXPECT_TRUE(log_.contains(debug("[GATT]PIPE_NAME")));
  EXPECT_TRUE(log_.contains(debug("[GATT]EVENT_PIPE_NAME")));
}

TEST_F(PipeReaderAttributes, OtherVendorAttributes_AreTheReadersOwn) {
  startCreated();
  EXPECT_EQ(ask(0x0007A009).answer(), number(0));
  EXPECT_EQ(ask(0x0007A00C).status(), kNotSupported);
  EXPECT_TRUE(
      log_.contains(error(50, "[GATT]SCARD_CLASS_VENDOR_DEFINED: ERROR_NOT_SUPPORTED:0007A00C")));
}

class ServerResult : public PipeReaderAttributes {
 protected:
  std::uint32_t result() {
    FakeRequest request(device_);
    request.withInput(0x0007A010u).withOutput(4);
    reader().IoSmartCardGetAttribute(&request, 4, 4);
    EXPECT_EQ(request.answer().size(), 4u);
    return loadLittleEndian(request.output().data());
  }

  // The server thread's last action is logged before its result is set.
  bool becomes(std::uint32_t code) {
    for (const auto begin = std::chrono::steady_clock::now(); result() != code;) {
      if (std::chrono::steady_clock::now() - begin > 30s) return false;
      std::this_thread::yield();
    }
    return true;
  }
};

// The creation of the pipes, held up.
class SlowCreation : public ForwardingPipes {
 public:
  using ForwardingPipes::ForwardingPipes;
  void letGo() { go_.set_value(); }

  bool convertSecurityDescriptor(const std::string& sddl,
                                 platform::SecurityDescriptor* out) override {
    goes_.wait();
    return ForwardingPipes::convertSecurityDescriptor(sddl, out);
  }

 private:
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

TEST_F(ServerResult, OfAFailedCreation_IsItsError) {
  pipes_.fail(PipeCallKind::kCreate, platform::error::kAccessDenied);
  start();
  EXPECT_TRUE(becomes(platform::error::kAccessDenied));
}

TEST_F(ServerResult, OfAThreadThatNobodyNeeded_IsInvalidState) {
  AgentLinkTimes times;
  times.insertRequest = 1ms;
  start(times);
  ASSERT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
  EXPECT_EQ(result(), platform::error::kInvalidState) << "published later than decided";
}

// The request is gone again when the thread that it has woken looks for it.
TEST_F(ServerResult, OfAThreadWhoseRequestIsCancelledAsItWakes_IsZero) {
  pipes_.fail(PipeCallKind::kConnect, platform::error::kGenFailure, 1, ScriptedPipes::kForever);
  AgentLinkTimes times;
  times.insertRequest = std::chrono::minutes(10);
  times.reconnect = 0ms;
  startCreated(times);
  ASSERT_TRUE(becomes(0));
  const auto wakes = static_cast<std::size_t>(repetitions(1000));
  while (pipes_.calls(PipeCallKind::kConnect).size() < wakes) {
    for (int i = 0; i < 10; ++i) {
      FakeRequest request(device_);
      reader().IoSmartCardIsPresent(&request, 0, 0);
      request.cancel();
      ASSERT_EQ(request.status(), kCancelled);
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
      ASSERT_TRUE(becomes(0));
    }
    FakeRequest& insertion = makeRequest();
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
