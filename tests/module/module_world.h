// What the tests of the driver module share: its surroundings (log folder, pipes, registry), its
// exports, and an agent with a card.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "framework/wdf.h"
#include "platform/process/module_loader.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/module/wire_bytes.h"
#include "tests/support/log_files.h"

namespace zelta::test {

using namespace std::chrono_literals;

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

// The policy that writes every level but the last, which the driver never writes.
inline constexpr std::uint32_t kEveryLevel = 3;

// The surroundings of one test; made before the module is loaded. On Linux they are a folder of the
// test's own. On Windows they are the system's: the log folder is emptied and removed, and so are
// the registry keys, so that such tests run one at a time and under Wine, not on somebody's
// machine.
class ModuleWorld {
 public:
  // With the policy that writes every level.
  ModuleWorld();
  ~ModuleWorld();
  ModuleWorld(const ModuleWorld&) = delete;
  ModuleWorld& operator=(const ModuleWorld&) = delete;

  // The records of all log files. Complete once the module is unloaded.
  std::vector<LogLine> log() const;
  std::vector<std::string> logSummaries() const { return summaries(log()); }
  // How often the log has that text by now; also while the module writes.
  std::size_t countInLog(const std::string& text) const;
  // How many log files there are.
  std::size_t logFiles() const;
  // Whether a reader's pipe of that name is there.
  bool pipeExists(const std::string& pipeName) const;
  // For a process that ends without destructors.
  void removeFolder() const;

  // Change the registry, also under a running module.
  void setPolicy(std::uint32_t eventFilterMode);
  void setRotationTime(const std::string& text);

 private:
  struct System;  // what the operating system's kind of surroundings consists of

  std::filesystem::path logFolder() const;

  const std::unique_ptr<System> system_;
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

}  // namespace zelta::test
