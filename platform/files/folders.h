// The folders from which the log file's place is chosen. Paths are UTF-16, as the system gives
// them.
#pragma once

#include <cstdint>
#include <string>

namespace zelta::platform {

class FolderApi {
 public:
  virtual ~FolderApi() = default;
  // The ProgramData known folder, without a trailing separator. Negative on failure, with
  // a null path. The text is released with `taskMemFree`.
  virtual std::int32_t programData(char16_t** path) = 0;
  virtual void taskMemFree(void* memory) = 0;
  // Each copies a path with its terminator into a buffer of `capacity` units. Returns the length
  // without the terminator, 0 on failure, or the size needed if the buffer is too small.
  virtual std::uint32_t tempPath(char16_t* buffer, std::uint32_t capacity) = 0;
  virtual std::uint32_t currentDirectory(char16_t* buffer, std::uint32_t capacity) = 0;
};

FolderApi& systemFolders();

}  // namespace zelta::platform
