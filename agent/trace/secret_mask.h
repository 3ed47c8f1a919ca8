// Which bytes of an exchange with the card are secret: PINs, keys, and what the card deciphers.
#pragma once

#include <cstddef>
#include <string>

#include "contract/bytes.h"

namespace zelta::agent {

// Bytes of a command or of a response that are not shown; none if the size is 0.
struct Hidden {
  std::size_t from = 0;
  std::size_t size = 0;
};

struct HiddenParts {
  Hidden command;
  Hidden response;
};

// `bytes` in hexadecimal, with two asterisks for each byte that is hidden.
std::string toMaskedHex(const Bytes& bytes, const Hidden& hidden);

// Follows the exchanges in their order, because a secret may come in the response to GET RESPONSE.
// One thread at a time.
class SecretMask {
 public:
  HiddenParts look(const Bytes& command, const Bytes& response);
  // Call if exchanges were missed: the next GET RESPONSE's data then counts as secret.
  void miss() { hidesNext_ = true; }

 private:
  bool hidesNext_ = true;  // the next GET RESPONSE's data
};

}  // namespace zelta::agent
