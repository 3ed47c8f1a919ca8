#include "platform/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "platform/errno_linux.h"

namespace zelta::platform {

namespace {

TEST(LastErrorTest, StaysUntilItIsSetAgain) {
  setLastError(error::kBadPipe);
  EXPECT_EQ(lastError(), error::kBadPipe);
  setLastError(error::kSuccess);
  EXPECT_EQ(lastError(), error::kSuccess);
}

TEST(LastErrorTest, IsEachThreadsOwnAndBeginsAtSuccess) {
  setLastError(error::kBadPipe);
  std::thread([] {
    EXPECT_EQ(lastError(), error::kSuccess);
    setLastError(error::kNoData);
  }).join();
  EXPECT_EQ(lastError(), error::kBadPipe);
}

TEST(ErrnoTest, NumbersHaveTheirNearestCounterpart) {
  const struct {
    int number;
    std::uint32_t expected;
  } known[] = {
      {0, error::kSuccess},
      {ENOENT, error::kFileNotFound},
      {ENOTDIR, error::kFileNotFound},
      {EMFILE, error::kTooManyOpenFiles},
      {ENFILE, error::kTooManyOpenFiles},
      {EACCES, error::kAccessDenied},
      {EPERM, error::kAccessDenied},
      {EROFS, error::kAccessDenied},
      {EADDRINUSE, error::kAccessDenied},
      {EBADF, error::kInvalidHandle},
      {ENOMEM, error::kNotEnoughMemory},
      {ENOBUFS, error::kNotEnoughMemory},
      {EINVAL, error::kInvalidParameter},
      {ECONNRESET, error::kBrokenPipe},
      {ENOSPC, error::kDiskFull},
      {EDQUOT, error::kDiskFull},
      {ENAMETOOLONG, error::kNameTooLong},
      {EPIPE, error::kNoData},
      {EXDEV, error::kGenFailure},
  };
  for (const auto& one : known) EXPECT_EQ(errorFromErrno(one.number), one.expected) << one.number;
}

}  // namespace

}  // namespace zelta::platform
