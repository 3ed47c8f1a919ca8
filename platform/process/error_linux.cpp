#include "platform/process/error_linux.h"

#include <cerrno>

#include "platform/process/error.h"

namespace zelta::platform {

namespace {

thread_local std::uint32_t threadError = error::kSuccess;

}  // namespace

std::uint32_t lastError() { return threadError; }

void setLastError(std::uint32_t error) { threadError = error; }

std::uint32_t errorFromErrno(int number) {
  switch (number) {
    case 0:
      return error::kSuccess;
    case ENOENT:
    case ENOTDIR:
      return error::kFileNotFound;
    case EMFILE:
    case ENFILE:
      return error::kTooManyOpenFiles;
    case EACCES:
    case EPERM:
    case EROFS:
    case EADDRINUSE:
      return error::kAccessDenied;
    case EBADF:
      return error::kInvalidHandle;
    case ENOMEM:
    case ENOBUFS:
      return error::kNotEnoughMemory;
    case EINVAL:
      return error::kInvalidParameter;
    case ECONNRESET:
      return error::kBrokenPipe;
    case ENOSPC:
    case EDQUOT:
      return error::kDiskFull;
    case ENAMETOOLONG:
      return error::kNameTooLong;
    case EPIPE:
      return error::kNoData;
    default:
      return error::kGenFailure;
  }
}

}  // namespace zelta::platform
