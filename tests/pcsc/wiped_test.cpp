// A command on its way through handler, host and driver, and its response on the way back: no part
// of them is left in freed memory. The agent works on its own threads.
#include <algorithm>
#include <array>

#include "tests/pcsc/handler_fixture.h"
#include "tests/support/freed_memory.h"

namespace zelta::test {
namespace {

constexpr std::size_t kVerifyHeader = 5;

class Wiped : public HandlerFixture {
 protected:
  void SetUp() override {
    openWithCard();
    Bytes atr;
    ASSERT_EQ(power(IFD_POWER_UP, &atr), IFD_SUCCESS);
  }
  // Uses buffers that are never freed. Memory freed meanwhile must not contain the secret.
  RESPONSECODE verify() {
    static std::array<UCHAR, kVerifyHeader + kSecret.size()> command{0x00, 0x20, 0x00, 0x80,
                                                                     kSecret.size()};
    std::copy(kSecret.begin(), kSecret.end(), command.begin() + kVerifyHeader);
    length_ = capacity_;
    const FreedMemoryWatch watch(FreedMemoryWatch::Threads::kOwn);
    const RESPONSECODE code = handler_->transmit(kLun, {1, sizeof(SCARD_IO_HEADER)}, command.data(),
                                                 command.size(), answer_.data(), &length_, nullptr);
    EXPECT_EQ(watch.found(), 0);
    EXPECT_GT(watch.freed(), 0);
    return code;
  }

  DWORD capacity_ = 258;
  DWORD length_ = 0;
  std::array<UCHAR, 258> answer_{};
};

TEST_F(Wiped, AnsweredCommand_LeavesNoSecretInFreedMemory) {
  EXPECT_EQ(verify(), IFD_SUCCESS);
  EXPECT_EQ(length_, kVerifyHeader + kSecret.size() + 2);  // the command and 90 00
}

TEST_F(Wiped, CommandWhoseResponseIsTooLong_LeavesNoSecretInFreedMemory) {
  capacity_ = 4;
  EXPECT_EQ(verify(), IFD_ERROR_INSUFFICIENT_BUFFER);
}

TEST_F(Wiped, CommandThatTheAgentDoesNotAnswer_LeavesNoSecretInFreedMemory) {
  agent_.respond([](const Bytes&) { return Bytes(); });
  EXPECT_NE(verify(), IFD_SUCCESS);
}

}  // namespace
}  // namespace zelta::test
