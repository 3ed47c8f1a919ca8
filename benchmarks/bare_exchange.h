// Only the bytes of an exchange over a socket pair: the least that it can cost.
//
// Another process answers, on one thread and at once. Create it before the process has threads; use
// it on one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>

namespace zelta::benchmarks {

class BareExchange {
 public:
  // The other process stays on `processor`, if there is one.
  explicit BareExchange(std::optional<int> processor = std::nullopt);
  ~BareExchange();
  BareExchange(const BareExchange&) = delete;
  BareExchange& operator=(const BareExchange&) = delete;

  // A command as the driver writes it: code, length, bytes; its answer as it reads it: length,
  // bytes.
  void run(const void* command, std::size_t size) const;
  // One byte there and back: two switches between processes.
  void runByte() const;

 private:
  int socket_ = -1;
  pid_t answering_ = 0;
};

// Receives all bytes asked for or ends the program: a measurement without its peer is worthless.
void receiveAll(int socket, void* bytes, std::size_t size);
void sendAll(int socket, const void* bytes, std::size_t size);

}  // namespace zelta::benchmarks
