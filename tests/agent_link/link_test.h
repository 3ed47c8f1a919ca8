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
#include "tests/doubles/pipes/forwarding_pipes.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/support/log_capture.h"
#include "tests/support/numbers.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

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
  // `QueryTransmit`; `response` is what the buffer held and holds.
  QueryResult queryTransmit(const Bytes& command, Bytes& response);

  // A waiting insertion (or removal) request; returns when it is in its list.
  FakeRequest& waitForInsertion();
  FakeRequest& waitForRemoval();
  // A request of this test that lives as long. Checks that the device lock is held when it is
  // completed.
  FakeRequest& makeRequest(Bytes input = {});
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
  FakeReaderDevice device_;

 private:
  std::vector<std::unique_ptr<FakeRequest>> requests_;
  std::unique_ptr<PipeReader> reader_;
};

}  // namespace zelta::test
