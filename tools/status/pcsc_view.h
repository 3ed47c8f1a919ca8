// What the PC/SC service says of a virtual reader.
#pragma once

#include <cstdint>
#include <string>

#include "contract/bytes.h"

namespace zelta::status {

// Texts are empty if nobody knows.
struct PcscView {
  std::string reader;    // its name
  std::string state;     // by its name: "absent", "present", "negotiable", ...
  std::string protocol;  // "T=0", "T=1"; of the card in use
  std::string problem;   // why the rest is empty, for people
  Bytes atr;
};

// Asks without touching the card. Blocks for as long as the service takes.
PcscView lookAtReader(std::uint32_t index);

}  // namespace zelta::status
