// A log call below the threshold makes no system call.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "diagnostics/log.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

class SystemCallsTest : public ::testing::Test {
 protected:
  SystemCallsTest() {
    std::filesystem::create_directories(folder_.path() / "Vornhalt" / "ZeltaAgent" / "logs");
  }

  test::TempFolder folder_;
  test::ScopedVariable data_{"ZELTA_PROGRAM_DATA", folder_.path().string()};
  test::ScopedVariable registry_{"ZELTA_REGISTRY", folder_.file("none.reg")};
};

// Makes every later system call of the thread, except the process's end, kill the process.
bool forbidSystemCalls() {
  std::array<sock_filter, 4> program = {
      sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)};
  sock_fprog filter = {program.size(), program.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

int statusOfChild(void (*run)()) {
  const pid_t process = fork();
  if (process == 0) {
    run();
    _exit(1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(process, &status, 0), process);
  return status;
}

TEST_F(SystemCallsTest, LogCallBelowTheThreshold_MakesNoSystemCall) {
  const int status = statusOfChild([] {
    logInfo("the logger is there");
    logDebug("and everything that is made once");
    const std::array<std::uint8_t, 64> bytes{};
    if (!forbidSystemCalls()) _exit(2);
    for (int i = 0; i < 1'000; ++i) {
      logDebug("text %d %s", i, "more");
      logByteDump(bytes.data(), bytes.size(), 16);
    }
    _exit(0);
  });
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SystemCallsTest, LogCallThatWrites_IsKilledByItsSystemCalls) {
  const int status = statusOfChild([] {
    logInfo("the logger is there");
    if (!forbidSystemCalls()) _exit(2);
    logInfo("written");
    _exit(0);
  });
  EXPECT_TRUE(WIFSIGNALED(status));
}

}  // namespace
}  // namespace zelta
