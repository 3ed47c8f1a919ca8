// Shared by the tests of the driver module: its surroundings (log folder, pipes, registry), its
// exports, and an agent with a card.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "contract/io_controls.h"
#include "contract/status.h"
#include "framework/wdf.h"
#include "platform/process/module_loader.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/log_files.h"
#include "tests/support/numbers.h"

namespace zelta::test {

using namespace std::chrono_literals;

// Longer than any operation that does not hang.
inline constexpr std::chrono::milliseconds kLong = 60s;

// A transmit's input and output: protocol, header length, then the APDU.
inline Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu) {
  return number(protocol, number(kTransmitHeaderSize, apdu));
}

// The policy that writes every level but the last, which the driver never writes.
inline constexpr std::uint32_t kEveryLevel = 3;

// The surroundings of one test; made before the module is loaded. On Linux they are a folder of the
// test's own. On Windows they are the system's: the log folder is emptied and removed, and so are
// the registry keys, so such tests run one at a time and only under Wine.
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
  // How often the log has that text so far; also while the module writes.
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
  struct System;  // the surroundings on each operating system

  std::filesystem::path logFolder() const;

  const std::unique_ptr<System> system_;
};

// The module under test, loaded by this object and used through its exports alone.
class DriverExports {
 public:
  enum class AtTheEnd { kMustGo, kIsNotAsked };

  explicit DriverExports(AtTheEnd end = AtTheEnd::kMustGo);
  // Unloads; the test fails if the module should be unloaded and is not.
  ~DriverExports();
  DriverExports(const DriverExports&) = delete;
  DriverExports& operator=(const DriverExports&) = delete;

  // An exported function without arguments.
  framework::HRESULT call(const char* name) const;
  framework::HRESULT canUnload() const { return call("DllCanUnloadNow"); }
  framework::ComPtr<framework::IClassFactory> factory() const;
  framework::ComPtr<framework::IDriverEntry> driver() const;

 private:
  const AtTheEnd end_;
  platform::ModuleHandle module_ = nullptr;
};

}  // namespace zelta::test
