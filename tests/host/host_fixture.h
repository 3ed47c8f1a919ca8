// A host with the fake driver, its trace and the driver's errors that it reported.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "host/driver_host.h"
#include "tests/doubles/framework/fake_driver.h"
#include "tests/support/collected.h"
#include "tests/support/temp_folder.h"

namespace zelta::host {

namespace fake = test::fake_driver;
using namespace std::chrono_literals;

// Longer than any operation that does not hang.
inline constexpr std::chrono::milliseconds kLong = 60s;
inline constexpr framework::HRESULT kCancelledStatus = status::kCancelled;

inline std::vector<std::uint8_t> numbers(const std::vector<std::uint32_t>& values) {
  std::vector<std::uint8_t> bytes(values.size() * sizeof(std::uint32_t));
  if (!bytes.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

inline std::vector<std::uint32_t> toNumbers(const std::vector<std::uint8_t>& bytes) {
  std::vector<std::uint32_t> values(bytes.size() / sizeof(std::uint32_t));
  if (!values.empty()) std::memcpy(values.data(), bytes.data(), values.size() * sizeof values[0]);
  return values;
}

class HostTest : public ::testing::Test {
 protected:
  HostTest() : host_(DriverHost::load(FAKE_DRIVER, options())) {}

  HostOptions options() {
    HostOptions options;
    options.driverError = [this](const std::string& text) { errors_.add(text); };
    return options;
  }

  // Brings the driver up and opens its reader.
  void start() {
    host_->bringUp();
    file_ = host_->open(L"dev0");
    ASSERT_NE(file_, nullptr);
  }

  IoResult control(std::uint32_t code, const std::vector<std::uint8_t>& input = {},
                   std::size_t capacity = 64) {
    return file_->control(code, input, capacity, kLong);
  }
  std::shared_ptr<IoOperation> submit(std::uint32_t code,
                                      const std::vector<std::uint8_t>& input = {},
                                      std::size_t capacity = 64) {
    return file_->submit(code, input, capacity, nullptr);
  }
  // Runs the control on its own thread, for controls that block in the driver's callback.
  std::future<IoResult> controlOnThread(std::uint32_t code,
                                        const std::vector<std::uint8_t>& input = {}) {
    return std::async(std::launch::async, [this, code, input] { return control(code, input); });
  }
  std::uint32_t counter(fake::Counter which) {
    const auto values = toNumbers(control(fake::kCounters).output);
    return values.size() > which ? values[which] : 0xFFFFFFFFu;
  }
  std::vector<std::string> errors() { return errors_.all(); }
  std::vector<std::string> trace() const {
    std::vector<std::string> lines;
    std::ifstream file(folder_.file("trace"));
    std::string line;
    while (std::getline(file, line)) lines.push_back(line);
    return lines;
  }

  test::TempFolder folder_;
  test::ScopedVariable traceFile_{fake::kTraceVariable, folder_.file("trace")};
  test::Collected<std::string> errors_;
  std::unique_ptr<DriverHost> host_;
  std::shared_ptr<File> file_;
};

class StartedHostTest : public HostTest {
 protected:
  void SetUp() override { start(); }
  // Completes waiting requests with success; returns how many could be, and how many were being
  // cancelled.
  std::vector<std::uint32_t> releaseWaiting() {
    return toNumbers(control(fake::kReleaseWaiting, numbers({0})).output);
  }
};

}  // namespace zelta::host
