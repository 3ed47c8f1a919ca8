#include "platform/files/file.h"
#include "platform/process/scoped_handle_win32.h"

namespace zelta::platform {

std::filesystem::path nativePath(const std::string& path) { return std::filesystem::u8path(path); }

NewFile makeNewFile(const std::filesystem::path& path, Readers) {
  const ScopedKernelHandle file(CreateFileW(path.c_str(), GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
  if (file) return NewFile::kMade;
  return GetLastError() == ERROR_FILE_EXISTS ? NewFile::kExists : NewFile::kFailed;
}

}  // namespace zelta::platform
