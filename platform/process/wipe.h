// Wipes memory that held a secret, such as the PIN in a command, before it is given back.
//
// Ownership: a `SecretBytes` owns its bytes. Threads: as any value. Nothing here fails but for lack
// of memory (std::bad_alloc) when bytes are copied.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace zelta::platform {

// Sets `size` bytes to zero, although nobody reads them afterwards.
void wipe(void* memory, std::size_t size) noexcept;

// A byte string that is wiped when it ends or gets another value. It keeps its length, so that no
// copy is left behind by growing.
class SecretBytes {
 public:
  using Bytes = std::vector<std::uint8_t>;

  SecretBytes() = default;
  // Implicit, as these are bytes.
  SecretBytes(Bytes bytes) : bytes_(std::move(bytes)) {}
  SecretBytes(const SecretBytes&) = default;
  SecretBytes(SecretBytes&&) = default;  // leaves an empty one
  SecretBytes& operator=(SecretBytes other) noexcept {
    bytes_.swap(other.bytes_);
    return *this;
  }
  ~SecretBytes() { wipe(bytes_.data(), bytes_.size()); }

  const Bytes& get() const { return bytes_; }
  std::uint8_t* data() { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }

 private:
  Bytes bytes_;
};

}  // namespace zelta::platform
