// Opens the files that a card is made from.
#pragma once

#include <fstream>
#include <string>

namespace zelta::agent {

// Opens a text file for reading. Throws WrongConfiguration with its name and the reason, or another
// std::runtime_error if the system is short of memory or of descriptors.
std::ifstream openCardFile(const std::string& path);

}  // namespace zelta::agent
