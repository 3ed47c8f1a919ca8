// Counts Winsock's starts and clean-ups, with results that a test chooses. Replaces the system's
// while this object lives. Any thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/process/winsock.h"
#include "tests/support/scoped_port.h"

namespace zelta::test {

class FakeWinsock final : public platform::WinsockApi {
 public:
  // The result of a start; 0 is success.
  std::atomic<std::int32_t> startupResult{0};

  int startups() const { return startups_; }
  int cleanups() const { return cleanups_; }
  // The version of the last start; 0 before the first.
  std::uint16_t version() const { return version_; }

  std::int32_t startup(std::uint16_t version) override {
    ++startups_;
    version_ = version;
    return startupResult;
  }
  std::int32_t cleanup() override {
    ++cleanups_;
    return 0;
  }

 private:
  std::atomic<int> startups_{0};
  std::atomic<int> cleanups_{0};
  std::atomic<std::uint16_t> version_{0};
  const ScopedPort inPlace_{&platform::Ports::winsock, *this};
};

}  // namespace zelta::test
