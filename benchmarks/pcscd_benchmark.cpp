// A command through pcscd to a handler that answers at once and to the reader, and the bare
// exchange of the same bytes. They take turns, so that other load on the machine affects all of
// them.
//
//   pcscd_benchmark ROUNDS COUNT PROCESSOR
//
// The bare exchange is answered on PROCESSOR. pcscd should run there, too, and agent and client
// together on one processor: otherwise the times are not comparable.
// Prints lines of samples.h.
#include <winscard.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/bare_exchange.h"
#include "benchmarks/samples.h"

namespace zelta::benchmarks {
namespace {

constexpr char kNullReader[] = "Null 00 00";
constexpr char kReader[] = "Zelta Virtual SmartCard Reader 00 00";
constexpr std::array<BYTE, 7> kShort{0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00};
constexpr std::size_t kLongData = 0xFFF0;
constexpr std::array<BYTE, 7> kLong{0x00, 0xB0, 0x00, 0x00, 0x00, 0xFF, 0xF0};
constexpr int kLongCommands = 10;  // a round
constexpr auto kPatience = std::chrono::seconds(30);

void expectSuccess(const char* what, LONG error) {
  if (error != SCARD_S_SUCCESS) {
    fail(std::string(what) + " failed: " + pcsc_stringify_error(error));
  }
}

class Connection {
 public:
  // Waits for the reader's card.
  explicit Connection(const char* reader) {
    LONG error = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context_);
    expectSuccess("establishing a context", error);
    const auto end = Clock::now() + kPatience;
    error = connect(reader);
    while (error != SCARD_S_SUCCESS && Clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      error = connect(reader);
    }
    expectSuccess(reader, error);
  }
  ~Connection() {
    SCardDisconnect(card_, SCARD_LEAVE_CARD);
    SCardReleaseContext(context_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void transmit(const std::array<BYTE, 7>& command, std::size_t expected) {
    DWORD length = answer_.size();
    const LONG error = SCardTransmit(card_, SCARD_PCI_T1, command.data(), command.size(), nullptr,
                                     answer_.data(), &length);
    expectSuccess("a transmit", error);
    if (length != expected) fail(std::to_string(length) + " bytes were answered");
  }

 private:
  LONG connect(const char* reader) {
    DWORD protocol = 0;
    return SCardConnect(context_, reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T1, &card_, &protocol);
  }

  SCARDCONTEXT context_ = 0;
  SCARDHANDLE card_ = 0;
  std::vector<BYTE> answer_ = std::vector<BYTE>(MAX_BUFFER_SIZE_EXTENDED);
};

void run(int rounds, int count, int answering) {
  const BareExchange bare(answering);
  Connection null(kNullReader);
  Connection reader(kReader);
  Samples bareTimes("bare exchange");
  Samples nullTimes("null, short");
  Samples readerTimes("reader, short");
  Samples nullLong("null, 65 kB");
  Samples readerLong("reader, 65 kB");
  for (int round = 0; round < rounds; ++round) {
    bareTimes.measure(count, [&] { bare.run(kShort.data(), kShort.size()); });
    nullTimes.measure(count, [&] { null.transmit(kShort, 2); });
    readerTimes.measure(count, [&] { reader.transmit(kShort, 2); });
    nullLong.measure(kLongCommands, [&] { null.transmit(kLong, kLongData + 2); });
    readerLong.measure(kLongCommands, [&] { reader.transmit(kLong, kLongData + 2); });
  }
  for (Samples* times : {&bareTimes, &nullTimes, &readerTimes, &nullLong, &readerLong}) {
    times->print();
  }
}

}  // namespace
}  // namespace zelta::benchmarks

int main(int argc, char** argv) {
  return zelta::benchmarks::runWithNumbers(argc, argv, "ROUNDS COUNT PROCESSOR",
                                           zelta::benchmarks::run);
}
