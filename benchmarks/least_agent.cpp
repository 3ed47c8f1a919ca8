// The smallest possible agent: one thread that answers each command at once.
//
//   least_agent            the pipes are those of $ZELTA_PIPE_ROOT
//
// A card is in. The line "remove" or "insert" on the standard input takes it out or puts it in,
// and is answered by the time at which the event was sent, in nanoseconds of the monotonic clock.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/bare_exchange.h"
#include "contract/bytes.h"
#include "contract/wire.h"
#include "platform/pipe/pipe_path.h"

namespace zelta::benchmarks {
namespace {

constexpr std::array<std::uint8_t, 10> kAtr{0x3B, 0x95, 0x13, 0x81, 0x01, 0, 0, 0, 0, 0};
constexpr std::uint8_t kReadBinary = 0xB0;  // its answer has as many bytes as it asks for
constexpr std::size_t kExtendedSize = 7;    // bytes of a command with an extended length
constexpr char kSessionId[] = "12345678-9abc-def0-1234-56789abcdef0";
constexpr auto kPause = std::chrono::milliseconds(5);

std::atomic<bool> cardIn{true};
std::atomic<int> eventPipe{-1};

int openPipe(const std::string& name) {
  const std::string path = platform::pipeSocketPath(name);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  for (;;) {
    const int pipe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(pipe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      return pipe;
    }
    close(pipe);
    std::this_thread::sleep_for(kPause);
  }
}

std::uint32_t receiveNumber(int pipe) {
  std::array<std::uint8_t, 4> bytes{};
  receiveAll(pipe, bytes.data(), bytes.size());
  return loadLittleEndian(bytes.data());
}

// The answer's bytes after the four of its length.
void appendAnswer(int pipe, AgentCommand command, std::vector<std::uint8_t>& answer) {
  if (command != AgentCommand::kQueryTransmit) {
    if (cardIn) answer.insert(answer.end(), kAtr.begin(), kAtr.end());
    return;
  }
  static std::vector<std::uint8_t> apdu;
  apdu.resize(receiveNumber(pipe));
  receiveAll(pipe, apdu.data(), apdu.size());
  if (apdu.size() == kExtendedSize && apdu[1] == kReadBinary) {
    answer.resize(answer.size() + (apdu[5] << 8 | apdu[6]), 0x55);
  }
  answer.insert(answer.end(), {0x90, 0x00});
}

void serve(int pipe) {
  std::vector<std::uint8_t> answer;
  for (;;) {
    const auto command = static_cast<AgentCommand>(receiveNumber(pipe));
    if (command == AgentCommand::kNotifyCardReady) continue;
    answer.resize(4);
    appendAnswer(pipe, command, answer);
    const auto size = toLittleEndian(static_cast<std::uint32_t>(answer.size() - 4));
    std::copy(size.begin(), size.end(), answer.begin());
    sendAll(pipe, answer.data(), answer.size());
  }
}

void moveCards() {
  for (std::string line; std::getline(std::cin, line);) {
    const bool in = line == "insert";
    const auto event = toLittleEndian(
        static_cast<std::uint32_t>(in ? AgentEvent::kCardInserted : AgentEvent::kCardRemoved));
    cardIn = in;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    sendAll(eventPipe, event.data(), event.size());
    std::cout << std::chrono::nanoseconds(now).count() << std::endl;
  }
}

int run() {
  const int events = openPipe(eventPipeName(0));
  const int commands = openPipe(commandPipeName(0));
  const auto code = toLittleEndian(static_cast<std::uint32_t>(AgentEvent::kSessionLogId));
  const auto size = toLittleEndian(sizeof kSessionId - 1);
  sendAll(events, code.data(), code.size());
  sendAll(events, size.data(), size.size());
  sendAll(events, kSessionId, sizeof kSessionId - 1);
  eventPipe = events;
  std::thread(moveCards).detach();  // ends with the process
  serve(commands);
  return 0;
}

}  // namespace
}  // namespace zelta::benchmarks

int main() { return zelta::benchmarks::run(); }
