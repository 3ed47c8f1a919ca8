// Folders that a test names, and that fail on command. Set up before use; the calls may then come
// from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/files/folders.h"

namespace zelta::test {

class FakeFolders final : public platform::FolderApi {
 public:
  static constexpr std::int32_t kFailure = static_cast<std::int32_t>(0x80070003);

  // Paths as the system is to give them; none: the call fails.
  std::optional<std::u16string> programDataPath;
  std::optional<std::u16string> temporaryPath;
  std::optional<std::u16string> currentPath;

  // Texts from `programData` that have not been freed.
  std::size_t unfreed() const { return unfreed_; }
  // Calls made so far, failed ones included.
  std::size_t tempPathCalls() const { return tempPathCalls_; }
  std::size_t currentDirectoryCalls() const { return currentDirectoryCalls_; }
  // Of the last call of either kind, in UTF-16 units.
  std::uint32_t lastCapacity() const { return lastCapacity_; }

  std::int32_t programData(char16_t** path) override;
  void taskMemFree(void* memory) override;
  std::uint32_t tempPath(char16_t* buffer, std::uint32_t capacity) override;
  std::uint32_t currentDirectory(char16_t* buffer, std::uint32_t capacity) override;

 private:
  std::uint32_t copyOut(const std::optional<std::u16string>& path, char16_t* buffer,
                        std::uint32_t capacity);

  std::atomic<std::size_t> unfreed_{0};
  std::atomic<std::size_t> tempPathCalls_{0};
  std::atomic<std::size_t> currentDirectoryCalls_{0};
  std::atomic<std::uint32_t> lastCapacity_{0};
};

}  // namespace zelta::test
