#include "tests/pcsc/any_calls.h"

#include <algorithm>
#include <array>
#include <memory>
#include <set>
#include <string>

#include "contract/bytes.h"
#include "contract/status.h"
#include "pcsc/agent_status.h"
#include "pcsc/ifd_api.h"
#include "pcsc/log.h"
#include "pcsc/reader_names.h"
#include "tests/doubles/framework/fake_driver_host.h"
#include "tests/support/fuzz_input.h"

namespace zelta::test {
namespace {

// The world of the current input.
struct World {
  std::array<std::shared_ptr<FakeReader>, 2> readers{std::make_shared<FakeReader>(),
                                                     std::make_shared<FakeReader>()};
  std::shared_ptr<FakeHostRecord> record = std::make_shared<FakeHostRecord>();
};
World* world = nullptr;  // the playing function's

// A result as from a host: no more output than was requested and than the driver announced.
host::IoResult fitting(host::IoResult result, std::size_t capacity) {
  result.output.resize(std::min({result.output.size(), capacity, result.information}));
  return result;
}

bool isResponseCode(RESPONSECODE code) {
  return code == IFD_SUCCESS || (code >= IFD_ERROR_TAG && code <= IFD_ERROR_INSUFFICIENT_BUFFER);
}

class AnyCalls {
 public:
  AnyCalls(const std::uint8_t* data, std::size_t size) : input_(data, size) {}

  void play() {
    while (!input_.atEnd()) step();
    for (const DWORD lun : std::set<DWORD>(open_)) close(lun);
    require(world_.record->loaded.size() == static_cast<std::size_t>(world_.record->destroyed),
            "with its last channel the driver is gone");
  }

 private:
  // A buffer of exactly the length in the call; none if the byte says so.
  struct Buffer {
    explicit Buffer(Bytes content) : bytes(std::move(content)), length(bytes.size()) {}
    PUCHAR data() { return bytes.empty() ? nullptr : bytes.data(); }

    Bytes bytes;
    DWORD length;
  };

  void step() {
    static constexpr void (AnyCalls::*kSteps[])() = {&AnyCalls::create,
                                                     &AnyCalls::createByName,
                                                     &AnyCalls::closeAny,
                                                     &AnyCalls::getCapabilities,
                                                     &AnyCalls::setCapabilities,
                                                     &AnyCalls::setProtocol,
                                                     &AnyCalls::power,
                                                     &AnyCalls::transmit,
                                                     &AnyCalls::control,
                                                     &AnyCalls::presence,
                                                     &AnyCalls::poll,
                                                     &AnyCalls::moveCard,
                                                     &AnyCalls::setAnswer,
                                                     &AnyCalls::failNextWait};
    (this->*input_.pick(kSteps))();
  }

  DWORD lun() {
    static constexpr DWORD kLuns[] = {0, 0, 0, 0x10000, 1, 0xFFFFFFFF};
    return input_.pick(kLuns);
  }
  FakeReader& reader() { return *world_.readers[input_.byte() % world_.readers.size()]; }
  Buffer roomFor(std::size_t unit) { return Buffer(Bytes(input_.byte() * unit)); }

  // Only an open channel does anything.
  void check(RESPONSECODE code, DWORD lun) const {
    require(isResponseCode(code), "the code is one of pcscd's");
    require(open_.count(lun) != 0 || code != IFD_SUCCESS, "a channel that is not open fails");
  }

  void noteOpened(RESPONSECODE code, DWORD lun) {
    require(isResponseCode(code), "the code is one of pcscd's");
    if (code != IFD_SUCCESS) return;
    require(open_.insert(lun).second, "a channel is opened once");
    require(open_.size() <= world_.readers.size(), "a reader has one channel");
  }

  void create() {
    const DWORD number = lun();
    noteOpened(IFDHCreateChannel(number, input_.byte() % 4), number);
  }

  void createByName() {
    const DWORD number = lun();
    std::string name = input_.text('\0');
    noteOpened(IFDHCreateChannelByName(number, name == "null" ? nullptr : name.data()), number);
  }

  void close(DWORD number) {
    const RESPONSECODE expected = open_.erase(number) != 0 ? IFD_SUCCESS : IFD_NO_SUCH_DEVICE;
    require(IFDHCloseChannel(number) == expected, "what is open, and nothing else, is closed");
  }
  void closeAny() { close(lun()); }

  DWORD tag() {
    static constexpr DWORD kTags[] = {TAG_IFD_ATR,
                                      TAG_IFD_SLOT_THREAD_SAFE,
                                      TAG_IFD_THREAD_SAFE,
                                      TAG_IFD_SLOTS_NUMBER,
                                      TAG_IFD_SIMULTANEOUS_ACCESS,
                                      TAG_IFD_POLLING_THREAD_KILLABLE,
                                      TAG_IFD_STOP_POLLING_THREAD,
                                      TAG_IFD_POLLING_THREAD_WITH_TIMEOUT,
                                      SCARD_ATTR_VENDOR_NAME,
                                      SCARD_ATTR_ATR_STRING,
                                      SCARD_ATTR_CURRENT_PROTOCOL_TYPE,
                                      SCARD_ATTR_DEVICE_FRIENDLY_NAME_A,
                                      0};
    const DWORD picked = input_.pick(kTags);
    return picked != 0 ? picked : input_.number();
  }

  void getCapabilities() {
    const DWORD number = lun();
    const DWORD asked = tag();
    Buffer value = roomFor(1);
    const RESPONSECODE code = IFDHGetCapabilities(number, asked, &value.length, value.data());
    check(code, number);
    require(value.length <= value.bytes.size(), "a value fits into its buffer");
  }

  void setCapabilities() {
    const DWORD number = lun();
    const DWORD asked = tag();
    Buffer value(input_.bytes(input_.byte()));
    check(IFDHSetCapabilities(number, asked, value.length, value.data()), number);
  }

  void setProtocol() {
    const DWORD number = lun();
    check(IFDHSetProtocolParameters(number, input_.byte() % 5, 0, 0, 0, 0), number);
  }

  void power() {
    static constexpr DWORD kActions[] = {IFD_POWER_UP, IFD_POWER_DOWN, IFD_RESET, 0};
    const DWORD number = lun();
    const DWORD action = input_.pick(kActions);
    Buffer atr = roomFor(1);
    const RESPONSECODE code = IFDHPowerICC(number, action, atr.data(), &atr.length);
    check(code, number);
    if (atr.data() == nullptr) return;
    require(atr.length <= std::min<std::size_t>(atr.bytes.size(), MAX_ATR_SIZE),
            "an ATR fits into its buffer");
    require(code == IFD_SUCCESS || atr.length == 0, "a failure has no ATR");
  }

  void transmit() {
    const DWORD number = lun();
    const DWORD protocol = input_.byte() % 5;
    Buffer command(input_.bytes(input_.byte()));
    Buffer answer = roomFor(8);
    SCARD_IO_HEADER received{};
    const RESPONSECODE code =
        IFDHTransmitToICC(number, {protocol, sizeof received}, command.data(), command.length,
                          answer.data(), &answer.length, protocol == 4 ? nullptr : &received);
    check(code, number);
    require(answer.length <= answer.bytes.size(), "an answer fits into its buffer");
    require(code == IFD_SUCCESS || answer.length == 0, "a failure has no answer");
  }

  void control() {
    static constexpr DWORD kCodes[] = {CM_IOCTL_GET_FEATURE_REQUEST, SCARD_CTL_CODE(1), 0};
    const DWORD number = lun();
    const DWORD picked = input_.pick(kCodes);
    Buffer question(input_.bytes(input_.byte() % 16));
    Buffer answer = roomFor(1);
    DWORD returned = 0;
    const RESPONSECODE code =
        IFDHControl(number, picked != 0 ? picked : input_.number(), question.data(),
                    question.length, answer.data(), answer.length, &returned);
    check(code, number);
    require(returned <= answer.length, "an answer fits into its buffer");
    require(code == IFD_SUCCESS || returned == 0, "a failure has no answer");
  }

  void presence() {
    const DWORD number = lun();
    const RESPONSECODE code = IFDHICCPresence(number);
    check(code, number);
    require(open_.count(number) == 0 || code == IFD_SUCCESS || code == IFD_ICC_NOT_PRESENT,
            "an open channel knows whether a card is in");
  }

  // pcscd may keep the functions, also after the channel was closed.
  void poll() {
    const DWORD number = lun();
    DWORD length = sizeof poll_;
    const RESPONSECODE code = IFDHGetCapabilities(number, TAG_IFD_POLLING_THREAD_WITH_TIMEOUT,
                                                  &length, reinterpret_cast<PUCHAR>(&poll_));
    check(code, number);
    length = sizeof stop_;
    (void)IFDHGetCapabilities(number, TAG_IFD_STOP_POLLING_THREAD, &length,
                              reinterpret_cast<PUCHAR>(&stop_));
    const std::uint8_t how = input_.byte();
    if (stop_ != nullptr && how % 2 == 0) check(stop_(number), number);
    const int milliseconds = how < 0x10 ? 1 : 0;  // seldom, so that most inputs take no time
    if (poll_ != nullptr) require(poll_(number, milliseconds) == IFD_SUCCESS, "a wait just ends");
  }

  void moveCard() {
    FakeReader& moved = reader();
    if (input_.byte() % 2 == 0) {
      moved.insertCard();
    } else {
      moved.removeCard();
    }
  }

  framework::HRESULT statusOfDriver() {
    static constexpr framework::HRESULT kStatuses[] = {
        framework::kOk,       status::kNoMedia,          status::kInvalidDeviceState,
        status::kCancelled,   status::kNotSupported,     status::kGenFailure,
        status::kOutOfMemory, status::kUnrecognizedMedia};
    return input_.pick(kStatuses);
  }

  void setAnswer() {
    static constexpr std::uint32_t kCodes[] = {
        IOCTL_SMARTCARD_POWER,    IOCTL_SMARTCARD_GET_ATTRIBUTE, IOCTL_SMARTCARD_SET_ATTRIBUTE,
        IOCTL_SMARTCARD_TRANSMIT, IOCTL_SMARTCARD_SET_PROTOCOL,  IOCTL_SMARTCARD_GET_STATE};
    FakeReader& answering = reader();
    const std::uint32_t code = input_.pick(kCodes);
    host::IoResult result;
    result.status = statusOfDriver();
    result.output = input_.bytes(input_.byte());
    const std::uint8_t beyond = input_.byte();  // as if the output had not fitted
    result.information = beyond == 0xFF ? SIZE_MAX : result.output.size() + beyond;
    answering.answer(code, [result](const FakeReader::Request& request) {
      return fitting(result, request.outputCapacity);
    });
  }

  void failNextWait() {
    FakeReader& failing = reader();
    const bool insertion = input_.byte() % 2 == 0;
    failing.completeNext(insertion ? IOCTL_SMARTCARD_IS_PRESENT : IOCTL_SMARTCARD_IS_ABSENT,
                         {statusOfDriver()});
  }

  FuzzInput input_;
  World& world_ = *world;
  std::set<DWORD> open_;
  RESPONSECODE (*poll_)(DWORD lun, int milliseconds) = nullptr;
  RESPONSECODE (*stop_)(DWORD lun) = nullptr;
};

}  // namespace

void playAnyCalls(const std::uint8_t* data, std::size_t size) {
  World played;
  world = &played;
  AnyCalls(data, size).play();
  world = nullptr;
}

}  // namespace zelta::test

// --- The handler's dependencies on its process, in place of the libraries' own ---

// NOLINTNEXTLINE(readability-identifier-naming): pcscd's name.
extern "C" void log_msg(int, const char*, ...) {}

namespace zelta {

std::unique_ptr<host::DriverHost> host::DriverHost::load(const std::string& path,
                                                         HostOptions options) {
  return test::FakeDriverHost::load(
      path, std::move(options), test::world->record,
      {{L"dev0", test::world->readers[0]}, {L"dev1", test::world->readers[1]}});
}

// No agent: opening does not wait for its card.
bool pcsc::agentHasCard(std::uint32_t, std::chrono::steady_clock::time_point) { return false; }

}  // namespace zelta
