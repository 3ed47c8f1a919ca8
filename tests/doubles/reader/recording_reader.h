// A reader for tests of the device: notes what the device does with it.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "tests/doubles/reader/scripted_reader.h"
#include "tests/support/collected.h"

namespace zelta::test {

// What happened to the readers of a device, in order; and whether their cards answer a check.
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

class RecordingReader final : public ScriptedReader {
 public:
  RecordingReader(std::uint32_t index, ReaderDevice* owner, ReaderStory& story)
      : ScriptedReader(index, owner), story_(story) {
    transmitResponse = {0x90, 0x00};
    story_.note("made " + std::to_string(index));
  }
  ~RecordingReader() override {
    story_.note("destroyed " + std::to_string(unitNumber()));
    if (story_.onDestroy) story_.onDestroy();
  }

  QueryResult CheckATR() override {
    if (story_.onCheck) story_.onCheck();
    return story_.checkResult;
  }
  void shutdown() override {
    story_.note("shut down " + std::to_string(unitNumber()));
    if (story_.onShutdown) story_.onShutdown();
  }
  void endExchanges() noexcept override {
    story_.note("exchanges ended " + std::to_string(unitNumber()));
    if (story_.onEndExchanges) story_.onEndExchanges();
  }

 private:
  ReaderStory& story_;
};

}  // namespace zelta::test
