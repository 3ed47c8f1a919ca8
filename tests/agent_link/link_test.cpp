#include "tests/agent_link/link_test.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "contract/io_controls.h"
#include "contract/reader_states.h"

namespace zelta::test {

LinkTest::LinkTest() : root_("ZELTA_PIPE_ROOT", folder_.path().string()) {
  log_.setHook([this](const LogRecord&) { logged_.lock(); });
}

LinkTest::~LinkTest() {
  stop();
  log_.setHook(nullptr);
}

bool LinkTest::waitForCount(const std::string& text, std::size_t count) {
  return logged_.lock().waitFor(std::chrono::seconds(30),
                                [&](bool) { return log_.count(text) >= count; });
}

bool LinkTest::waitForBeginning(const std::string& beginning) {
  return logged_.lock().waitFor(std::chrono::seconds(30), [&](bool) {
    const std::vector<LogRecord> records = log_.records();
    return std::any_of(records.begin(), records.end(), [&](const LogRecord& record) {
      return record.text.compare(0, beginning.size(), beginning) == 0;
    });
  });
}

QueryResult LinkTest::queryTransmit(const Bytes& command, Bytes& response) {
  ResponseBuffer buffer;
  if (!response.empty()) buffer.assign(response.data(), response.size());
  const QueryResult result = reader().QueryTransmit(command, buffer);
  response.assign(buffer.data(), buffer.data() + buffer.size());
  return result;
}

PipeReader& LinkTest::start(const AgentLinkTimes& times, std::uint32_t index) {
  reader_ = std::make_unique<PipeReader>(index, &device_, times);
  device_.onCancel = [this](IoRequest& request) { reader_->IoCancelRequest(&request); };
  return *reader_;
}

void LinkTest::stop() {
  if (reader_ == nullptr) return;
  reader_->endExchanges();
  destroy();
}

void LinkTest::destroy() {
  reader_->shutdown();
  device_.onCancel = nullptr;
  reader_.reset();
}

FakeRequest& LinkTest::makeRequest(Bytes input) {
  requests_.push_back(std::make_unique<FakeRequest>(device_));
  return requests_.back()->withInput(std::move(input)).withOutput(4096).checkingLock();
}

FakeRequest& LinkTest::waitWith(void (Reader::*handler)(IoRequest*, std::size_t, std::size_t)) {
  FakeRequest& request = makeRequest();
  (reader().*handler)(&request, 0, 0);
  EXPECT_TRUE(request.waitMarked()) << "the request does not wait";
  return request;
}

void LinkTest::makeCardPresent() {
  FakeRequest& request = makeRequest(number(SCARD_POWER_DOWN));
  reader().IoSmartCardPower(&request, 4, 0);
  ASSERT_EQ(reader().state(), SCARD_SWALLOWED);
}

}  // namespace zelta::test
