// A very small disk.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>

namespace zelta::test {

// Runs `action` with the root of an empty file system of that size (bytes, rounded up to pages).
// The action runs on its own thread. Only this thread and those that it starts see the file system,
// which vanishes with them. If the system permits no mounts, the test is skipped.
void onSmallDisk(std::size_t size, const std::function<void(const std::filesystem::path&)>& action);

// Fills the disk with a file of that name.
void fillDisk(const std::filesystem::path& file);

}  // namespace zelta::test
