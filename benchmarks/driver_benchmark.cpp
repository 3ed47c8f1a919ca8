// The driver alone, through its binary interface, with the least agent: an exchange and the bare
// exchange of the same bytes, the controls that are answered from the reader's state, and the time
// from an event to the completion of the request that waits for it.
//
//   driver_benchmark ROUNDS COUNT
//
// Pipes, registry and log folder are those of the environment. Prints lines of samples.h.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/agent_process.h"
#include "benchmarks/bare_exchange.h"
#include "benchmarks/samples.h"
#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "host/driver_host.h"

namespace zelta::benchmarks {
namespace {

constexpr auto kLimit = std::chrono::seconds(30);
const Bytes kCommand{0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00};
// The command after a transmit's header: the protocol and the header's length.
const Bytes kTransmit = [] {
  Bytes bytes{SCARD_PROTOCOL_T1, 0, 0, 0, kTransmitHeaderSize, 0, 0, 0};
  bytes.insert(bytes.end(), kCommand.begin(), kCommand.end());
  return bytes;
}();
constexpr std::size_t kCapacity = 264;  // bytes of an answer

Bytes number(std::uint32_t value) {
  const auto bytes = toLittleEndian(value);
  return {bytes.begin(), bytes.end()};
}

// The driver in its host, with an open reader.
class Driver {
 public:
  Driver() : host_(host::DriverHost::load(ZELTA_VSC_MODULE)) {
    host_->bringUp();
    file_ = host_->open(L"dev0");
  }

  void control(std::uint32_t code, const Bytes& input) {
    const host::IoResult result = file_->control(code, input, kCapacity, kLimit);
    if (framework::succeeded(result.status)) return;
    fail("control " + std::to_string(code) + " failed: " + std::to_string(result.status));
  }
  // Begins a request; when this returns it waits for the card, or is completed. `completed` gets
  // the time.
  std::shared_ptr<host::IoOperation> wait(std::uint32_t code, Clock::time_point* completed) {
    return file_->submit(code, {}, 0,
                         [completed](const host::IoResult&) { *completed = Clock::now(); });
  }

 private:
  const std::unique_ptr<host::DriverHost> host_;
  std::shared_ptr<host::File> file_;
};

struct Control {
  const char* name;
  std::uint32_t code;
  Bytes input;
};

// The controls that the driver answers without asking the agent.
const std::vector<Control> kFromState{
    {"GET_STATE", IOCTL_SMARTCARD_GET_STATE, {}},
    {"GET_ATTRIBUTE, a text", IOCTL_SMARTCARD_GET_ATTRIBUTE, number(SCARD_ATTR_VENDOR_NAME)},
    {"GET_ATTRIBUTE, a number", IOCTL_SMARTCARD_GET_ATTRIBUTE, number(SCARD_ATTR_MAX_CLK)},
    {"GET_ATTRIBUTE, the protocol", IOCTL_SMARTCARD_GET_ATTRIBUTE,
     number(SCARD_ATTR_CURRENT_PROTOCOL_TYPE)},
    {"GET_ATTRIBUTE, the unit", IOCTL_SMARTCARD_GET_ATTRIBUTE, number(SCARD_ATTR_DEVICE_UNIT)},
    {"SET_ATTRIBUTE", IOCTL_SMARTCARD_SET_ATTRIBUTE, number(SCARD_ATTR_DEVICE_IN_USE)},
    {"POWER, down", IOCTL_SMARTCARD_POWER, number(SCARD_POWER_DOWN)},
};

void measureCommands(Driver& driver, const BareExchange& bare, int rounds, int count) {
  Samples byteTimes("a byte there and back");
  Samples bareTimes("bare exchange");
  Samples transmitTimes("TRANSMIT");
  Samples resetTimes("POWER, cold reset");
  std::vector<Samples> stateTimes;
  stateTimes.reserve(std::size(kFromState));
  for (const Control& each : kFromState) stateTimes.emplace_back(each.name);
  const Bytes coldReset = number(SCARD_COLD_RESET);
  for (int round = 0; round < rounds; ++round) {
    byteTimes.measure(count, [&] { bare.runByte(); });
    bareTimes.measure(count, [&] { bare.run(kCommand.data(), kCommand.size()); });
    resetTimes.measure(count, [&] { driver.control(IOCTL_SMARTCARD_POWER, coldReset); });
    driver.control(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T1));
    transmitTimes.measure(count, [&] { driver.control(IOCTL_SMARTCARD_TRANSMIT, kTransmit); });
    for (std::size_t i = 0; i < kFromState.size(); ++i) {
      const Control& each = kFromState[i];
      stateTimes[i].measure(count, [&] { driver.control(each.code, each.input); });
    }
  }
  for (Samples* times : {&byteTimes, &bareTimes, &transmitTimes, &resetTimes}) times->print();
  for (Samples& times : stateTimes) times.print();
}

// Measures from the agent's event to the completion of the request that waits for it.
void measureEvents(Driver& driver, AgentProcess& agent, int count) {
  Samples removals("removal to completion");
  Samples insertions("insertion to completion");
  Clock::time_point completed;
  for (int i = 0; i < count; ++i) {
    auto operation = driver.wait(IOCTL_SMARTCARD_IS_ABSENT, &completed);
    Clock::time_point sent = agent.move("remove");
    (void)operation->wait(kLimit);
    removals.add(completed - sent);
    operation = driver.wait(IOCTL_SMARTCARD_IS_PRESENT, &completed);
    sent = agent.move("insert");
    (void)operation->wait(kLimit);
    insertions.add(completed - sent);
  }
  insertions.print();
  removals.print();
}

void run(int rounds, int count) {
  const BareExchange bare;
  AgentProcess agent(ZELTA_LEAST_AGENT);
  Driver driver;
  Clock::time_point cardSeen;
  if (!driver.wait(IOCTL_SMARTCARD_IS_PRESENT, &cardSeen)->wait(kLimit)) {
    fail("the card did not come in");
  }
  measureCommands(driver, bare, rounds, count);
  measureEvents(driver, agent, rounds * count / 20);
}

}  // namespace
}  // namespace zelta::benchmarks

int main(int argc, char** argv) {
  return zelta::benchmarks::runWithNumbers(argc, argv, "ROUNDS COUNT", zelta::benchmarks::run);
}
