// A card's response, with room before it for the header that the smart card service expects, so
// that both reach the caller in one copy.
//
// The room for a response is not initialised: a long response is written once, and memory that an
// agent only announces is reserved but never touched. If the caller has no room for a response,
// only its length is kept. Written memory is wiped before it is freed.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>

#include "contract/io_controls.h"
#include "platform/process/wipe.h"

namespace zelta {

class ResponseBuffer {
 public:
  // The most bytes written at a time of a response that is not kept.
  static constexpr std::size_t kBlock = 1024 * 1024;
  static constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

  // `limit` is the caller's room in bytes, header and response together.
  explicit ResponseBuffer(std::size_t limit = kNoLimit) : limit_(limit) {}
  ~ResponseBuffer() { clear(); }
  ResponseBuffer(const ResponseBuffer&) = delete;
  ResponseBuffer& operator=(const ResponseBuffer&) = delete;

  // Replaces the response by one of `size` bytes, which `next` then takes. Throws std::bad_alloc,
  // and is empty then.
  void begin(std::size_t size) {
    clear();
    const std::size_t room = isKept(size) ? size : std::min(size, kBlock);
    memory_.reset(static_cast<std::uint8_t*>(::operator new(kTransmitHeaderSize + room)));
    size_ = size;
  }
  // The place for the next `count` bytes, `kBlock` at most.
  std::uint8_t* next(std::size_t count) {
    const std::size_t before = isKept(size_) ? written_ : 0;
    written_ = std::max(written_, before + count);
    return memory_.get() + kTransmitHeaderSize + before;
  }
  // `size` is `kBlock` at most.
  void assign(const std::uint8_t* bytes, std::size_t size) {
    begin(size);
    std::copy_n(bytes, size, next(size));
  }
  void clear() {
    if (written_ > 0) platform::wipe(memory_.get() + kTransmitHeaderSize, written_);
    memory_.reset();
    size_ = 0;
    written_ = 0;
  }

  // The response alone, if it is kept; null if it is empty.
  const std::uint8_t* data() const {
    return size_ == 0 ? nullptr : memory_.get() + kTransmitHeaderSize;
  }
  std::size_t size() const { return size_; }

  // The `kTransmitHeaderSize` bytes before the response. Call only after `begin` or `assign`.
  std::uint8_t* header() { return memory_.get(); }

 private:
  struct Free {
    void operator()(std::uint8_t* memory) const { ::operator delete(memory); }
  };

  bool isKept(std::size_t size) const {
    return size <= limit_ && kTransmitHeaderSize <= limit_ - size;
  }

  const std::size_t limit_;
  std::unique_ptr<std::uint8_t, Free> memory_;  // header and response
  std::size_t size_ = 0;                        // of the response
  std::size_t written_ = 0;                     // bytes of it that are in the memory
};

}  // namespace zelta
