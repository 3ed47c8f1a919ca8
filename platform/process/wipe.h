// Wipes memory that held a secret, such as the PIN in a command, before it is freed.
//
// Ownership: `SecretBytes` and `SecretQueue` own their bytes. Threads: as any value. Copying bytes
// may throw std::bad_alloc; nothing else here fails.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace zelta::platform {

// Sets `size` bytes to zero, even if nobody reads them afterwards.
void wipe(void* memory, std::size_t size) noexcept;

// A byte string that is wiped when it is destroyed or gets another value. It keeps its length,
// because growing would leave a copy behind.
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

// Bytes that are added at the end and removed at the front. Freed memory is wiped.
class SecretQueue {
 public:
  using Bytes = std::vector<std::uint8_t>;

  SecretQueue() = default;
  SecretQueue(const SecretQueue&) = delete;
  SecretQueue& operator=(const SecretQueue&) = delete;
  ~SecretQueue() { wipe(bytes_.data(), bytes_.size()); }

  void append(const std::uint8_t* bytes, std::size_t size) {
    if (bytes_.capacity() - bytes_.size() < size) {
      Bytes larger;
      larger.reserve(std::max(bytes_.size() + size, 2 * bytes_.size()));
      larger.assign(bytes_.begin(), bytes_.end());
      wipe(bytes_.data(), bytes_.size());
      bytes_.swap(larger);
    }
    bytes_.insert(bytes_.end(), bytes, bytes + size);
  }
  void append(const Bytes& bytes) { append(bytes.data(), bytes.size()); }
  // Removes the first `count` bytes, which must exist.
  void drop(std::size_t count) {
    const std::size_t left = bytes_.size() - count;
    std::copy_n(bytes_.data() + count, left, bytes_.data());
    wipe(bytes_.data() + left, count);
    bytes_.resize(left);
  }

  const Bytes& get() const { return bytes_; }
  const std::uint8_t* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }

 private:
  Bytes bytes_;
};

}  // namespace zelta::platform
