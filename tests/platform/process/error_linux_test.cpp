#include "platform/process/error_linux.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/process/error.h"

namespace zelta::platform {
namespace {

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
