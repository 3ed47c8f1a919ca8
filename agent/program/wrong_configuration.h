// What the program ends with if an option, or a file that one names, is wrong.
#pragma once

#include <stdexcept>

namespace zelta::agent {

// Starting again would not help, so the service does not: the program ends with kExitUsage.
class WrongConfiguration : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace zelta::agent
