#include <windows.h>

#include "platform/files/new_file.h"

namespace zelta::platform {

NewFile makeNewFile(const std::filesystem::path& path) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file != INVALID_HANDLE_VALUE) {
    CloseHandle(file);
    return NewFile::kMade;
  }
  return GetLastError() == ERROR_FILE_EXISTS ? NewFile::kExists : NewFile::kFailed;
}

}  // namespace zelta::platform
