// A reader for tests of the device: notes what the device does with it, and its card answers what
// the test says.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "contract/bytes.h"
#include "reader/reader.h"
#include "tests/support/collected.h"

namespace zelta::test {

// What happened to the readers of a device, in order; and what their cards answer.
struct ReaderStory {
  void note(const std::string& event) { events.add(event); }
  std::vector<std::string> taken() { return events.take(); }

  Collected<std::string> events;
  std::atomic<QueryResult> checkResult{QueryResult::kFailure};
  std::function<void()> onCheck;
  std::function<void()> onEndExchanges;
  std::function<void()> onShutdown;
  std::function<void()> onDestroy;
};

class RecordingReader final : public Reader {
 public:
  RecordingReader(std::uint32_t index, ReaderDevice* owner, ReaderStory& story)
      : Reader(index, owner), story_(story) {
    story_.note("made " + std::to_string(index));
  }
  ~RecordingReader() override {
    story_.note("destroyed " + std::to_string(unitNumber()));
    if (story_.onDestroy) story_.onDestroy();
  }

  QueryResult QueryTransmit(const Bytes&, ResponseBuffer& response) override {
    constexpr std::array<std::uint8_t, 2> kDone{0x90, 0x00};
    response.assign(kDone.data(), kDone.size());
    return QueryResult::kSuccess;
  }
  QueryResult QueryAtr(Bytes& atr, bool) override {
    atr = {0x3B, 0x00};
    return QueryResult::kSuccess;
  }
  QueryResult CheckATR() override {
    if (story_.onCheck) story_.onCheck();
    return story_.checkResult;
  }
  bool NotifyCardReady() override { return true; }
  void shutdown() override {
    story_.note("shut down " + std::to_string(unitNumber()));
    if (story_.onShutdown) story_.onShutdown();
  }
  std::uint32_t serverThread() override { return 0; }
  void endExchanges() noexcept override {
    story_.note("exchanges ended " + std::to_string(unitNumber()));
    if (story_.onEndExchanges) story_.onEndExchanges();
  }

  using Reader::waiting;

 private:
  ReaderStory& story_;
};

}  // namespace zelta::test
