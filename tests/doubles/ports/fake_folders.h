// Folders that a test names and that fail on command. Set up before use; then any thread may call.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "platform/files/folders.h"

namespace zelta::test {

class FakeFolders final : public platform::FolderApi {
 public:
  static constexpr std::int32_t kFailure = static_cast<std::int32_t>(0x80070003);

  // The paths that the calls return; none: the call fails.
  std::optional<std::u16string> programDataPath;
  std::optional<std::u16string> temporaryPath;
  std::optional<std::u16string> currentPath;

  // Texts from `programData` that have not been freed.
  std::size_t unfreed() const { return unfreed_; }
  // Calls made so far, failed ones included.
  std::size_t tempPathCalls() const { return tempPathCalls_; }
  std::size_t currentDirectoryCalls() const { return currentDirectoryCalls_; }
  // The capacity in the last call of either kind, in UTF-16 units.
  std::uint32_t lastCapacity() const { return lastCapacity_; }

  std::int32_t programData(char16_t** path) override {
    *path = nullptr;
    if (!programDataPath) return kFailure;
    const std::size_t bytes = (programDataPath->size() + 1) * sizeof(char16_t);
    void* const memory = std::malloc(bytes);
    if (memory == nullptr) return kFailure;
    std::memcpy(memory, programDataPath->c_str(), bytes);
    *path = static_cast<char16_t*>(memory);
    ++unfreed_;
    return 0;
  }
  void taskMemFree(void* memory) override {
    if (memory == nullptr) return;
    --unfreed_;
    std::free(memory);
  }
  std::uint32_t tempPath(char16_t* buffer, std::uint32_t capacity) override {
    ++tempPathCalls_;
    return copyOut(temporaryPath, buffer, capacity);
  }
  std::uint32_t currentDirectory(char16_t* buffer, std::uint32_t capacity) override {
    ++currentDirectoryCalls_;
    return copyOut(currentPath, buffer, capacity);
  }

 private:
  std::uint32_t copyOut(const std::optional<std::u16string>& path, char16_t* buffer,
                        std::uint32_t capacity) {
    lastCapacity_ = capacity;
    if (!path) return 0;
    const std::size_t needed = path->size() + 1;
    if (buffer == nullptr || needed > capacity) return static_cast<std::uint32_t>(needed);
    std::memcpy(buffer, path->c_str(), needed * sizeof(char16_t));
    return static_cast<std::uint32_t>(path->size());
  }

  std::atomic<std::size_t> unfreed_{0};
  std::atomic<std::size_t> tempPathCalls_{0};
  std::atomic<std::size_t> currentDirectoryCalls_{0};
  std::atomic<std::uint32_t> lastCapacity_{0};
};

}  // namespace zelta::test
