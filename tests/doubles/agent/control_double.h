// An agent's control socket whose answers the test gives.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "contract/control.h"
#include "platform/files/scoped_fd_linux.h"
#include "tests/support/pipes/raw_socket_linux.h"

namespace zelta::test {

// Owned by the test. Answers one client after the other, on its own thread.
class ControlDouble {
 public:
  // Returns the answer to the question with that number, from 1.
  using Answer = std::function<std::string(int question)>;

  static std::string statusWithCard(std::uint32_t reader, bool in) {
    return kControlOk + ("{\"reader\":" + std::to_string(reader)) +
           ",\"connected\":false,\"card\":\"" + (in ? "in" : "out") + "\"}\n";
  }

  ControlDouble(const std::string& path, Answer answer)
      : answer_(std::move(answer)), listener_(bindSocket(path, 8)), thread_([this] { serve(); }) {
    EXPECT_TRUE(listener_.valid());
  }
  ~ControlDouble() {
    shutdown(listener_.get(), SHUT_RDWR);  // ends `accept`
    thread_.join();
  }
  ControlDouble(const ControlDouble&) = delete;
  ControlDouble& operator=(const ControlDouble&) = delete;

  int questions() const { return questions_; }

 private:
  void serve() {
    for (;;) {
      const platform::ScopedFd client(accept(listener_.get(), nullptr, nullptr));
      if (!client.valid()) return;
      std::array<char, 100> line{};
      const ssize_t size = recv(client.get(), line.data(), line.size(), 0);
      EXPECT_EQ(std::string(line.data(), size > 0 ? size : 0),
                kControlStatusJson + std::string("\n"));
      const std::string answer = answer_(++questions_);
      send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
    }
  }

  const Answer answer_;
  std::atomic<int> questions_{0};
  const platform::ScopedFd listener_;
  std::thread thread_;
};

}  // namespace zelta::test
