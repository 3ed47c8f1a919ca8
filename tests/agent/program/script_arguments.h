// The program's arguments for a scripted card, and what such cards answer in its tests.
#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "contract/bytes.h"

namespace zelta::test {

inline const Bytes kAtr = {0x3B, 0x00};
inline const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};
inline const Bytes kOk = {0x90, 0x00};
inline constexpr char kPlain[] = "atr 3B00\ncommand 00A4* -> 9000\n";

// Writes the script to `path`.
inline std::vector<std::string> scriptArguments(const std::string& path, const std::string& script,
                                                const std::vector<std::string>& more) {
  std::ofstream(path) << script;
  std::vector<std::string> arguments = {"--backend", "script", "--script", path, "-v"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

}  // namespace zelta::test
