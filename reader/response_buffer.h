// A card's response behind room for the header that the smart card service expects before it, so
// that both reach the caller in one copy.
//
// The room for a response is not initialised: a long response is written once, and memory that an
// agent only announces is reserved but never touched.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "contract/io_controls.h"

namespace zelta {

class ResponseBuffer {
 public:
  // Replaces the response by `size` bytes that the caller writes. Throws std::bad_alloc, and is
  // empty then.
  std::uint8_t* allocate(std::size_t size) {
    clear();
    memory_.reset(static_cast<std::uint8_t*>(::operator new(kTransmitHeaderSize + size)));
    size_ = size;
    return memory_.get() + kTransmitHeaderSize;
  }
  void assign(const std::uint8_t* bytes, std::size_t size) {
    std::copy_n(bytes, size, allocate(size));
  }
  void clear() {
    memory_.reset();
    size_ = 0;
  }

  // The response alone; null if it is empty.
  const std::uint8_t* data() const {
    return size_ == 0 ? nullptr : memory_.get() + kTransmitHeaderSize;
  }
  std::size_t size() const { return size_; }

  // The `kTransmitHeaderSize` bytes before the response. Only after `allocate` or `assign`.
  std::uint8_t* header() { return memory_.get(); }

 private:
  struct Free {
    void operator()(std::uint8_t* memory) const { ::operator delete(memory); }
  };

  std::unique_ptr<std::uint8_t, Free> memory_;  // header and response
  std::size_t size_ = 0;                        // of the response
};

}  // namespace zelta
