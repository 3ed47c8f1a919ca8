// Reads a request's input and answers a request with data. The answering operations always complete
// the request, under the device lock.
//
// Intentional: the result of the copy into the output is not examined. If the output buffer is
// smaller than the data, nothing is written, and the request is still completed with success and
// the full byte count. A caller that needs a size check makes it first.
//
// Failures: a missing input is a result, a missing output the request's status. std::bad_alloc
// leaves these operations before the request is completed, never after.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "driver/request/io_request.h"
#include "driver/request/reader_device.h"

namespace zelta {

// A request's input in place, while this object lives.
class InputBytes {
 public:
  explicit InputBytes(IoRequest& request);

  // False if the request has no input memory.
  explicit operator bool() const { return memory_ != nullptr; }
  const std::uint8_t* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  const Held<IoMemory> memory_;
  const std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
};

class MemoryUtil {
 public:
  // The whole input; false if the request has no input memory.
  [[nodiscard]] static bool getBuffer(IoRequest& request, std::vector<std::uint8_t>& bytes);
  // The input's first four bytes, little-endian; -1 if the request has no input memory. Ignores the
  // input's size: the caller has made sure of four bytes.
  static std::int32_t getInt(IoRequest& request);

  static void setBuffer(ReaderDevice& device, IoRequest& request,
                        const std::vector<std::uint8_t>& bytes) {
    setBuffer(device, request, bytes.data(), bytes.size());
  }
  static void setBuffer(ReaderDevice& device, IoRequest& request, const std::uint8_t* bytes,
                        std::size_t size);
  // Four bytes, little-endian.
  static void setInt(ReaderDevice& device, IoRequest& request, std::uint32_t value);
  // The characters and a terminating zero byte.
  static void setString(ReaderDevice& device, IoRequest& request, const std::string& text);
};

}  // namespace zelta
