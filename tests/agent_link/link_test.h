// What the tests of the agent link share: a reader on pipes of the test's choice, its log, and the
// requests that wait in it.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent_link/pipe_reader.h"
#include "contract/bytes.h"
#include "platform/process/ports.h"
#include "tests/doubles/request/link_requests.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

// Puts other pipes in the system's place for a scope.
class ScopedPipes {
 public:
  explicit ScopedPipes(platform::PipeApi& pipes) : before_(platform::ports()) {
    platform::Ports ports = before_;
    ports.pipes = &pipes;
    platform::replacePorts(ports);
  }
  ~ScopedPipes() { platform::replacePorts(before_); }
  ScopedPipes(const ScopedPipes&) = delete;
  ScopedPipes& operator=(const ScopedPipes&) = delete;

 private:
  const platform::Ports before_;
};

// Waits for log lines.
class LogWaiter {
 public:
  explicit LogWaiter(LogCapture& log);
  ~LogWaiter();
  // For a line to be there that many times.
  bool waitForCount(const std::string& text, std::size_t count);
  // For a line that begins so.
  bool waitForBeginning(const std::string& beginning);

 private:
  LogCapture& log_;
  std::mutex mutex_;
  std::condition_variable logged_;
};

// The parts of a reader's surroundings, with the reader started by the test.
class LinkTest : public ::testing::Test {
 protected:
  LinkTest();
  ~LinkTest() override;

  PipeReader& start(const AgentLinkTimes& times = {}, std::uint32_t index = 0);
  // As the device does it: exchanges ended, shut down, then destroyed.
  void stop();
  // Without the end of exchanges: what is under way is the destructor's to end.
  void destroy();
  PipeReader& reader() { return *reader_; }

  // A waiting insertion (or removal) request; returns when it is in its list.
  LinkRequest& waitForInsertion();
  LinkRequest& waitForRemoval();
  // A request of this test that lives as long.
  LinkRequest& makeRequest(Bytes input = {});
  // Leaves the state at "swallowed", as after a power down.
  void makeCardPresent();
  bool waitForCount(const std::string& text, std::size_t count) {
    return waiter_.waitForCount(text, count);
  }
  // Until both pipes are there.
  bool waitUntilCreated() { return waiter_.waitForBeginning("Event pipe created:"); }

  TempFolder folder_;
  ScopedVariable root_;
  LogCapture log_;
  LogWaiter waiter_;
  LinkDevice device_;

 private:
  std::vector<std::unique_ptr<LinkRequest>> requests_;
  std::unique_ptr<PipeReader> reader_;
};

// A number as four bytes in front of others, or alone.
std::vector<std::uint8_t> number(std::uint32_t value, const std::vector<std::uint8_t>& tail = {});
std::string hex(const std::vector<std::uint8_t>& bytes);

}  // namespace zelta::test
