#include "pcsc/server_result.h"

namespace zelta::pcsc {

namespace {

namespace error = platform::error;

struct Meaning {
  std::uint32_t result;
  const char* text;
};

constexpr Meaning kMeanings[] = {
    {error::kFileNotFound, "the folder of its pipes cannot be had"},
    {error::kTooManyOpenFiles, "too many files are open"},
    {error::kAccessDenied, "access to its pipes is denied"},
    {error::kNotEnoughMemory, "there is no memory"},
    {error::kDiskFull, "the disk of its pipes is full"},
    {error::kNameTooLong, "the name of its pipes is too long"},
    {error::kInvalidState, "nobody asked for a card within 10 s"},
};

}  // namespace

std::string serverResultText(std::uint32_t result) {
  for (const Meaning& meaning : kMeanings) {
    if (meaning.result != result) continue;
    return std::string(meaning.text) + " (" + std::to_string(result) + ")";
  }
  return "error " + std::to_string(result);
}

}  // namespace zelta::pcsc
