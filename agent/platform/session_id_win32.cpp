// Made by hand although Windows makes GUIDs: rpcrt4 would be one more library to link.
#include <cstddef>
#include <random>

#include "agent/program/session_id.h"

namespace zelta::agent {

namespace {

constexpr char kForm[] = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
constexpr std::size_t kVersionAt = 14;
constexpr std::size_t kVariantAt = 19;

}  // namespace

std::string newSessionId() {
  static constexpr char kDigits[] = "0123456789abcdef";
  static constexpr char kVariants[] = "89ab";
  std::random_device random;
  std::uniform_int_distribution<int> digit(0, 15);
  std::uniform_int_distribution<int> variant(0, 3);
  std::string id = kForm;
  for (char& c : id) {
    if (c == 'x') c = kDigits[digit(random)];
  }
  id[kVersionAt] = '4';
  id[kVariantAt] = kVariants[variant(random)];
  return id;
}

}  // namespace zelta::agent
