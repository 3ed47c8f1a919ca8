// The driver in a host of its own that ends without asking it.
#include <gmock/gmock.h>

#include "contract/io_controls.h"
#include "tests/module/module_world.h"
#include "tests/module/programs.h"

namespace zelta::test {
namespace {

using ::testing::StartsWith;

class HostProcessTest : public ::testing::Test {
 protected:
  // The agent serves that host and its card is in; a request for its removal waits.
  void serve(HostProgram& host) {
    ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_PRESENT));
    ASSERT_TRUE(agent_.does("card in"));
    ASSERT_TRUE(agent_.does("connect"));
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET)),
              HostProgram::kDone + HostProgram::hex(CardAgent::atrOfT1()));
    ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_ABSENT));
  }

  ModuleWorld world_;
  AgentProgram agent_;
};

TEST_F(HostProcessTest, ExitUnderADriverThatIsUpEndsWithTheExitCode) {
  HostProgram first;
  serve(first);
  first.askToExit(42);
  EXPECT_EQ(first.wait(), 42);
  HostProgram next;
  serve(next);
}

TEST_F(HostProcessTest, ExitUnderADriverThatHasNoAgentEndsWithTheExitCode) {
  HostProgram host;
  ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_PRESENT));
  host.askToExit(43);
  EXPECT_EQ(host.wait(), 43);
}

TEST_F(HostProcessTest, CrashedHostLeavesItsPipesAndItsAgentToTheNext) {
  HostProgram first;
  serve(first);
  first.kill();
  EXPECT_EQ(first.wait(), ChildProcess::kKilled);
  HostProgram next;
  serve(next);
  EXPECT_TRUE(next.down());
}

}  // namespace
}  // namespace zelta::test
