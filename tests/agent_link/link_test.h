// Shared by the tests of the agent link: a reader on pipes of the test's choice, its log, and the
// requests that wait in it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "agent_link/pipe_reader.h"
#include "contract/bytes.h"
#include "tests/doubles/logging/log_capture.h"
#include "tests/doubles/pipes/forwarding_pipes.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/support/numbers.h"
#include "tests/support/shared.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

// The parts of a reader's surroundings, with the reader started by the test.
class LinkTest : public ::testing::Test {
 protected:
  LinkTest();
  ~LinkTest() override;

  PipeReader& start(const AgentLinkTimes& times = {}, std::uint32_t index = 0);
  // Like the device: ends exchanges, shuts down, then destroys the reader.
  void stop();
  // Without the end of exchanges: the destructor must end the current ones.
  void destroy();
  PipeReader& reader() { return *reader_; }
  // `QueryTransmit`; `response` is the buffer's content before and after.
  QueryResult queryTransmit(const Bytes& command, Bytes& response);

  // A waiting insertion (or removal) request; returns when it is in its list.
  FakeRequest& waitForInsertion() { return waitWith(&Reader::IoSmartCardIsPresent); }
  FakeRequest& waitForRemoval() { return waitWith(&Reader::IoSmartCardIsAbsent); }
  // A request that lives as long as the test. Checks that the device lock is held when it is
  // completed.
  FakeRequest& makeRequest(Bytes input = {});
  // Leaves the state at "swallowed", as after a power down.
  void makeCardPresent();
  // Wait for `count` lines with this text, and for a line with this beginning.
  bool waitForCount(const std::string& text, std::size_t count);
  bool waitForBeginning(const std::string& beginning);
  // Waits until both pipes exist.
  bool waitUntilCreated() { return waitForBeginning("Event pipe created:"); }

  TempFolder folder_;
  ScopedVariable root_;
  LogCapture log_;
  FakeReaderDevice device_;

 private:
  FakeRequest& waitWith(void (Reader::*handler)(IoRequest*, std::size_t, std::size_t));

  Shared<bool> logged_{false};  // locked once after each line
  std::vector<std::unique_ptr<FakeRequest>> requests_;
  std::unique_ptr<PipeReader> reader_;
};

}  // namespace zelta::test
