#include "tests/support/fake_folders.h"

#include <cstdlib>
#include <cstring>

namespace zelta::test {

std::int32_t FakeFolders::programData(char16_t** path) {
  *path = nullptr;
  if (!programDataPath) return kFailure;
  const std::size_t bytes = (programDataPath->size() + 1) * sizeof(char16_t);
  void* memory = std::malloc(bytes);
  if (memory == nullptr) return kFailure;
  std::memcpy(memory, programDataPath->c_str(), bytes);
  *path = static_cast<char16_t*>(memory);
  ++unfreed_;
  return 0;
}

void FakeFolders::taskMemFree(void* memory) {
  if (memory == nullptr) return;
  --unfreed_;
  std::free(memory);
}

std::uint32_t FakeFolders::tempPath(char16_t* buffer, std::uint32_t capacity) {
  ++tempPathCalls_;
  return copyOut(temporaryPath, buffer, capacity);
}

std::uint32_t FakeFolders::currentDirectory(char16_t* buffer, std::uint32_t capacity) {
  ++currentDirectoryCalls_;
  return copyOut(currentPath, buffer, capacity);
}

std::uint32_t FakeFolders::copyOut(const std::optional<std::u16string>& path, char16_t* buffer,
                                   std::uint32_t capacity) {
  lastCapacity_ = capacity;
  if (!path) return 0;
  const std::size_t needed = path->size() + 1;
  if (buffer == nullptr || needed > capacity) return static_cast<std::uint32_t>(needed);
  std::memcpy(buffer, path->c_str(), needed * sizeof(char16_t));
  return static_cast<std::uint32_t>(path->size());
}

}  // namespace zelta::test
