// Shared by the tests of a reader: a reader whose card's answers the test sets, its log, and
// requests that are passed to it as by the dispatch.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <ostream>

#include "contract/reader_states.h"
#include "tests/doubles/logging/log_capture.h"
#include "tests/doubles/reader/scripted_reader.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/support/numbers.h"

namespace zelta::test {

// How a request was completed.
struct Answer {
  std::uint32_t status;
  std::optional<std::size_t> information;
  Bytes output;
};

inline bool operator==(const Answer& a, const Answer& b) {
  return a.status == b.status && a.information == b.information && a.output == b.output;
}

inline std::ostream& operator<<(std::ostream& out, const Answer& answer) {
  return out << std::hex << answer.status << ", " << testing::PrintToString(answer.information)
             << ", " << testing::PrintToString(answer.output);
}

inline Answer refused(std::uint32_t status) { return {status, 0, {}}; }
inline Answer answered(const Bytes& bytes) { return {0, bytes.size(), bytes}; }

class ReaderFixture : public testing::Test {
 protected:
  ReaderFixture() {
    device_.onCancel = [this](IoRequest& request) { reader_.IoCancelRequest(&request); };
  }

  using Records = std::vector<LogRecord>;
  using Handler = void (Reader::*)(IoRequest*, std::size_t, std::size_t);

  void run(Handler handler, FakeRequest& request) { (reader_.*handler)(&request, 0, 0); }

  // Runs a handler that completes its request at once, and checks that the device lock is held. The
  // log begins anew.
  Answer ask(Handler handler, const std::optional<Bytes>& input, std::size_t capacity = 64) {
    log_.clear();
    FakeRequest request(device_);
    request.withOutput(capacity).checkingLock();
    if (input.has_value()) request.withInput(*input);
    run(handler, request);
    EXPECT_EQ(request.outputWritten(), !request.answer().empty());
    return {request.status(), request.information(), request.answer()};
  }

  // Lets the reader read the ATR as after an insertion.
  void insert(const Bytes& atr) {
    reader_.atr = atr;
    ASSERT_TRUE(reader_.initializeProtocols());
    reader_.setState(SCARD_SWALLOWED);
    reader_.resetFlags.clear();
  }

  LogCapture log_;
  FakeReaderDevice device_;
  ScriptedReader reader_{3, &device_};
};

}  // namespace zelta::test
