// What the tests of the driver module share: its surroundings (log folder, pipes, registry), its
// exports, and an agent with a card.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "driver/smartcard_ioctl.h"
#include "framework/wdf.h"
#include "platform/module_loader.h"
#include "tests/support/link_agent.h"
#include "tests/support/log_files.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

using namespace std::chrono_literals;

using Bytes = std::vector<std::uint8_t>;

// Longer than anything takes that does not hang.
inline constexpr std::chrono::milliseconds kLong = 60s;

namespace answer {

inline constexpr framework::HRESULT kSuccess = 0;
inline constexpr framework::HRESULT kInvalidArgument = framework::hresult(0x80070057);
inline constexpr framework::HRESULT kInvalidState = framework::hresult(0x8007139F);
inline constexpr framework::HRESULT kNotSupported = framework::hresult(0x80070032);
inline constexpr framework::HRESULT kCancelled = framework::hresult(0x800704C7);
inline constexpr framework::HRESULT kGenFailure = framework::hresult(0x8007001F);
inline constexpr framework::HRESULT kUnrecognizedMedia = framework::hresult(0x800706F9);
inline constexpr framework::HRESULT kNoMedia = framework::hresult(0xC0000178);
inline constexpr framework::HRESULT kInvalidDeviceState = framework::hresult(0xC0000184);

}  // namespace answer

// 32-bit little-endian numbers.
Bytes number(std::uint32_t value);
std::uint32_t toNumber(const Bytes& bytes);
// What a transmit takes and gives: protocol, header length, then the APDU.
Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu);
Bytes operator+(Bytes front, const Bytes& back);

// The environment of one test; made before the module is loaded.
class ModuleWorld {
 public:
  ModuleWorld();

  // The records of all log files. Complete once the module is unloaded.
  std::vector<LogLine> log() const;
  std::vector<std::string> logSummaries() const { return summaries(log()); }
  // Whether the path of a reader's pipe is there.
  bool pipeExists(const std::string& pipeName) const;
  // For a process that ends without destructors.
  void removeFolder() const;

 private:
  TempFolder folder_;
  ScopedVariable programData_;
  ScopedVariable pipeRoot_;
  ScopedVariable registry_;
};

// The module under test, loaded by this object and used through its exports alone.
class DriverExports {
 public:
  DriverExports();
  // Unloads; a failure of the test where the module does not let go.
  ~DriverExports();
  DriverExports(const DriverExports&) = delete;
  DriverExports& operator=(const DriverExports&) = delete;

  framework::HRESULT getClassObject(const framework::CLSID& classId, const framework::IID& wanted,
                                    void** out) const;
  framework::HRESULT canUnload() const;
  framework::HRESULT registerServer() const;
  framework::HRESULT unregisterServer() const;
  // Major and minor.
  const std::uint32_t* version() const;

  framework::ComPtr<framework::IClassFactory> factory() const;
  framework::ComPtr<framework::IDriverEntry> driver() const;

 private:
  platform::ModuleHandle module_ = nullptr;
};

inline constexpr framework::CLSID kDriverClass = {
    0xA44A2DF4, 0xDCA4, 0x4767, {0x8E, 0xC4, 0x86, 0xFE, 0x61, 0x1C, 0x2E, 0xA7}};
inline constexpr framework::GUID kReaderInterfaceClass = {
    0x50DD5230, 0xBA8A, 0x11D1, {0xBF, 0x5D, 0x00, 0x00, 0xF8, 0x05, 0xF5, 0x30}};

// The card behind the agent. Answers a command with itself and 90 00; while it is out every query
// is answered with length 0.
class TestCard {
 public:
  LinkAgent::Answer answers();
  void insert() { present_ = true; }
  void pull() { present_ = false; }
  bool present() const { return present_; }

  // T=1 with TA(1) = 13, as the parser's examples have it.
  static Bytes atrOfT1() { return {0x3B, 0x95, 0x13, 0x81, 0x01, 0x80, 0x73, 0xFF, 0x01, 0x00}; }
  // Names no protocol: T=0, and the current protocol stays what was selected.
  static Bytes atrOfT0() { return {0x3B, 0x00}; }
  // For as long as no agent answers.
  void setAtr(Bytes atr) { atr_ = std::move(atr); }
  static Bytes responseTo(const Bytes& apdu) { return apdu + Bytes{0x90, 0x00}; }

 private:
  std::atomic<bool> present_{false};
  Bytes atr_ = atrOfT1();
};

}  // namespace zelta::test
