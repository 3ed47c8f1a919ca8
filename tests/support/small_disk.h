// A disk that is soon full.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>

namespace zelta::test {

// Runs `action` with the root of an empty file system of that size (bytes, rounded up to pages).
// It runs on a thread of its own, which alone, with the threads that it starts, sees that file
// system; it is gone when they are. Needs root; a failure of the test without.
void onSmallDisk(std::size_t size, const std::function<void(const std::filesystem::path&)>& action);

// Takes all the space that is left on the disk with a file of that name.
void fillDisk(const std::filesystem::path& file);

}  // namespace zelta::test
