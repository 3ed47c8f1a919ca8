// Thrown if an option is wrong, or a file that an option names.
#pragma once

#include <stdexcept>

namespace zelta::agent {

// The program ends with kExitUsage, so that the service does not start it again, which would not
// help.
class WrongConfiguration : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace zelta::agent
