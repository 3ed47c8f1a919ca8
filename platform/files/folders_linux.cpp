#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/files/folders.h"
#include "platform/files/utf.h"
#include "platform/process/environment.h"
#include "platform/process/error.h"
#include "platform/process/never_destroyed.h"

namespace zelta::platform {

namespace {

constexpr std::int32_t kSuccess = 0;

std::string withoutTrailingSlashes(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

// Fills a caller's buffer as Windows' calls do.
std::uint32_t copyOut(const std::u16string& text, char16_t* buffer, std::uint32_t capacity) {
  const std::size_t needed = text.size() + 1;
  if (buffer == nullptr || needed > capacity) return static_cast<std::uint32_t>(needed);
  std::memcpy(buffer, text.c_str(), needed * sizeof(char16_t));
  return static_cast<std::uint32_t>(text.size());
}

class LinuxFolders final : public FolderApi {
 public:
  std::int32_t programData(char16_t** path) override {
    *path = nullptr;
    const std::u16string text =
        utf16FromUtf8(withoutTrailingSlashes(environmentOr("ZELTA_PROGRAM_DATA", "/var/log")));
    const std::size_t bytes = (text.size() + 1) * sizeof(char16_t);
    void* memory = std::malloc(bytes);
    if (memory == nullptr) return kOutOfMemoryResult;
    std::memcpy(memory, text.c_str(), bytes);
    *path = static_cast<char16_t*>(memory);
    return kSuccess;
  }

  void taskMemFree(void* memory) override { std::free(memory); }

  std::uint32_t tempPath(char16_t* buffer, std::uint32_t capacity) override {
    const std::string folder = withoutTrailingSlashes(environmentOr("TMPDIR", "/tmp"));
    return copyOut(utf16FromUtf8(folder + '/'), buffer, capacity);
  }

  std::uint32_t currentDirectory(char16_t* buffer, std::uint32_t capacity) override {
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::current_path(error);
    if (error) return 0;
    return copyOut(utf16FromUtf8(folder.native()), buffer, capacity);
  }
};

}  // namespace

FolderApi& systemFolders() {
  static NeverDestroyed<LinuxFolders> folders;
  return folders.get();
}

}  // namespace zelta::platform
