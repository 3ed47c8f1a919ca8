#include "benchmarks/bare_exchange.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace zelta::benchmarks {

namespace {

constexpr std::uint32_t kEcho = 0xFFFFFFFF;  // one byte follows, and comes back
constexpr std::uint32_t kTransmit = 2;
constexpr std::array<std::uint8_t, 6> kAnswer{2, 0, 0, 0, 0x90, 0x00};  // length, status word

void stayOn(int processor) {
  cpu_set_t processors;
  CPU_ZERO(&processors);
  CPU_SET(static_cast<std::size_t>(processor), &processors);
  if (sched_setaffinity(0, sizeof processors, &processors) != 0) std::_Exit(1);
}

[[noreturn]] void answer(int socket) {
  std::vector<std::uint8_t> bytes;
  for (;;) {
    std::uint32_t code = 0;
    receiveAll(socket, &code, sizeof code);
    if (code == kEcho) {
      sendAll(socket, "", 1);
      continue;
    }
    std::uint32_t size = 0;
    receiveAll(socket, &size, sizeof size);
    bytes.resize(size);
    receiveAll(socket, bytes.data(), size);
    sendAll(socket, kAnswer.data(), kAnswer.size());
  }
}

}  // namespace

void receiveAll(int socket, void* bytes, std::size_t size) {
  if (recv(socket, bytes, size, MSG_WAITALL) != static_cast<ssize_t>(size)) std::_Exit(1);
}

void sendAll(int socket, const void* bytes, std::size_t size) {
  const auto* next = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t sent = send(socket, next, size, MSG_NOSIGNAL);
    if (sent <= 0) std::_Exit(1);
    next += sent;
    size -= static_cast<std::size_t>(sent);
  }
}

BareExchange::BareExchange(std::optional<int> processor) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
  (void)std::fflush(stdout);  // otherwise the other process would print it, too
  answering_ = fork();
  if (answering_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(ends[0]);
    if (processor.has_value()) stayOn(*processor);
    answer(ends[1]);
  }
  close(ends[1]);
  socket_ = ends[0];
}

BareExchange::~BareExchange() {
  close(socket_);
  waitpid(answering_, nullptr, 0);
}

void BareExchange::run(const void* command, std::size_t size) const {
  const auto length = static_cast<std::uint32_t>(size);
  sendAll(socket_, &kTransmit, sizeof kTransmit);
  sendAll(socket_, &length, sizeof length);
  sendAll(socket_, command, size);
  std::uint32_t answerSize = 0;
  receiveAll(socket_, &answerSize, sizeof answerSize);
  std::array<std::uint8_t, 2> status{};
  receiveAll(socket_, status.data(), status.size());
}

void BareExchange::runByte() const {
  sendAll(socket_, &kEcho, sizeof kEcho);
  char byte = 0;
  receiveAll(socket_, &byte, 1);
}

}  // namespace zelta::benchmarks
