// The PC/SC service's view of a virtual reader.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "contract/bytes.h"

namespace zelta::status {

// Unknown texts are empty.
struct PcscView {
  std::string reader;    // its name
  std::string state;     // by its name: "absent", "present", "negotiable", ...
  std::string protocol;  // "T=0", "T=1"; of the card in use
  std::string problem;   // why the rest is empty, for people
  Bytes atr;
};

// One of the service's readers. Does not touch the card or make other programs wait. Opens the
// reader only if a card is in that no program uses exclusively; in a series of looks, only after a
// change or some time. For a program with one thread.
class VirtualReader {
 public:
  explicit VirtualReader(std::uint32_t index);

  // Takes a second if another program has a transaction.
  PcscView look();

 private:
  // Its name; empty, with the reason in `problem`, if it is not among these.
  std::string findIn(const std::vector<std::string>& readers, std::string& problem);

  const std::uint32_t index_;
  std::vector<std::string> listed_;  // when `name_` was found
  std::string name_;
  unsigned long seen_ = 0;  // its state and counter, at the last look
  std::chrono::steady_clock::time_point opened_;
  PcscView last_;
};

}  // namespace zelta::status
