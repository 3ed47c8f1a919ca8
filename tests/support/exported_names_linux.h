// Lists the exports of a shared library.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace zelta::test {

// The names of its defined dynamic symbols, as the program `nm` lists them.
inline std::vector<std::string> exportedNames(const std::string& nm, const std::string& library) {
  const std::string command = nm + " -D --defined-only --format=posix " + library;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> listing(popen(command.c_str(), "r"),
                                                                pclose);
  EXPECT_NE(listing, nullptr) << command;
  std::vector<std::string> names;
  std::array<char, 256> line{};
  while (std::fgets(line.data(), line.size(), listing.get()) != nullptr) {
    std::istringstream(line.data()) >> names.emplace_back();
  }
  return names;
}

}  // namespace zelta::test
