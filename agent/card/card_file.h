// Files that a card is made of.
#pragma once

#include <fstream>
#include <string>

namespace zelta::agent {

// Opens a text file for reading. Throws std::runtime_error with its name and the reason.
std::ifstream openCardFile(const std::string& path);

}  // namespace zelta::agent
