// Hides the PINs in the log's byte dumps of commands.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace zelta::logs {

// Follows the dumps of every thread: a dump is a record "N byte dump:" and one for each 16 bytes.
// Not safe for several threads.
class DumpMask {
 public:
  // The message as it may be shown: ".." for each byte of a PIN command's data. A line of a dump
  // whose beginning was not seen is hidden completely. Call for the message of every record, in
  // order.
  std::string masked(std::string_view thread, std::string_view message);

 private:
  struct Dump {
    std::uint64_t length = 0;
    std::uint64_t position = 0;
    std::vector<std::uint8_t> head;  // the bytes up to the command's data
  };

  std::map<std::string, Dump, std::less<>> dumps_;  // by thread
};

}  // namespace zelta::logs
