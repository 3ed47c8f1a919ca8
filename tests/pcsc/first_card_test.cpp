// Opening a channel waits for the card of an agent that has one.
#include <future>
#include <new>
#include <thread>

#include "contract/control.h"
#include "tests/doubles/agent/control_double.h"
#include "tests/pcsc/channel_fixture.h"
#include "tests/pcsc/handler_fixture.h"

namespace zelta::pcsc {
namespace {

using test::ControlDouble;
using test::FakeReader;
using Clock = std::chrono::steady_clock;

// The test answers for the agent of dev0.
class FirstCardTest : public test::TableTest {
 protected:
  // Returns the answer to the question with that number, from 1.
  using AgentHasCard = std::function<bool(int question)>;

  void open(const AgentHasCard& agentHasCard) {
    agentHasCard_ = agentHasCard;
    EXPECT_EQ(agents_.open(kLun, 0), IFD_SUCCESS);
  }
  RESPONSECODE presence() { return ChannelTable::Use(agents_, kLun).channel()->checkPresence(); }

  AgentHasCard agentHasCard_;
  std::atomic<int> questions_{0};
  Clock::time_point deadline_;  // of the latest question
  ChannelTable agents_{{[this](const std::string& path, host::HostOptions options) {
                          return test::FakeDriverHost::load(
                              path, std::move(options), record_,
                              {{L"dev0", reader_}, {L"dev1", other_}});
                        },
                        [] { return std::string("/module.so"); }, log_->log(),
                        [this](std::uint32_t reader, Clock::time_point deadline) {
                          if (reader != 0) return false;
                          deadline_ = deadline;
                          return agentHasCard_(++questions_);
                        }}};
};

TEST_F(FirstCardTest, AgentWithACard_IsWaitedForUntilItIsThere) {
  open([this](int question) {
    if (question == 2) reader_->insertCard();
    return true;
  });
  EXPECT_EQ(presence(), IFD_SUCCESS);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_IS_ABSENT), 1u);  // the removal will be noticed
}

TEST_F(FirstCardTest, CardThatIsThereAlready_EndsTheWaitWithoutAnotherQuestion) {
  open([this](int) {
    reader_->insertCard();
    ChannelTable::Use(agents_, kLun).channel()->awaitChange(FakeReader::kLimit);
    return true;
  });
  EXPECT_EQ(presence(), IFD_SUCCESS);
  EXPECT_EQ(questions_, 1);
}

TEST_F(FirstCardTest, AgentWithoutACard_IsNotWaitedFor) {
  open([](int) { return false; });
  EXPECT_EQ(presence(), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(questions_, 1);
}

TEST_F(FirstCardTest, AgentThatLosesItsCard_IsNotWaitedForAnyLonger) {
  open([](int question) { return question == 1; });
  EXPECT_EQ(presence(), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(questions_, 2);
}

TEST_F(FirstCardTest, CardThatNeverComes_CostsHalfASecond) {
  Clock::duration left{};
  const auto begun = Clock::now();
  open([&](int question) {
    if (question == 1) left = deadline_ - Clock::now();
    return true;
  });
  const auto end = Clock::now();
  EXPECT_EQ(presence(), IFD_ICC_NOT_PRESENT);
  EXPECT_LE(left, std::chrono::milliseconds(500));
  EXPECT_GE(end, deadline_);
  EXPECT_GE(end - begun, std::chrono::milliseconds(500));
}

TEST_F(FirstCardTest, QuestionThatFindsNoMemory_CountsAsNoAgent) {
  open([](int) -> bool { throw std::bad_alloc(); });
  EXPECT_EQ(presence(), IFD_ICC_NOT_PRESENT);
}

TEST_F(FirstCardTest, OtherChannels_OpenAndCloseMeanwhile) {
  open([this](int) {
    EXPECT_EQ(agents_.open(kOtherLun, 1), IFD_SUCCESS);
    EXPECT_EQ(agents_.close(kOtherLun), IFD_SUCCESS);
    EXPECT_EQ(presence(), IFD_ICC_NOT_PRESENT);
    return false;
  });
  EXPECT_EQ(questions_, 1);
}

TEST_F(FirstCardTest, Close_EndsTheWait) {
  std::promise<void> asked;
  auto closed = std::async(std::launch::async, [&] {
    asked.get_future().wait();
    return agents_.close(kLun);
  });
  open([&](int question) {
    if (question == 1) {
      asked.set_value();
      while (ChannelTable::Use(agents_, kLun).channel() != nullptr) std::this_thread::yield();
    }
    return true;
  });
  EXPECT_EQ(closed.get(), IFD_SUCCESS);
  // It would be asked until the limit, about ten times.
  EXPECT_LE(questions_, 3);
}

// --- The handler's library on the real driver ---

class FirstCardOfAgent : public test::HandlerFixture {
 protected:
  test::TempFolder folder_;
  const test::ScopedVariable runtime_{"XDG_RUNTIME_DIR", folder_.path().string()};
  const std::string control_ = defaultControlPaths(0).front();
};

TEST_F(FirstCardOfAgent, ConnectsOnceThePipesAreThere_AndTheCardIsThereWhenTheChannelIsOpen) {
  agent_.setCardIn();
  ControlDouble control(control_, [this](int question) {
    EXPECT_TRUE(question > 1 || agent_.connectUnasked());
    return ControlDouble::statusWithCard(0, true);
  });
  ASSERT_EQ(open(), IFD_SUCCESS);
  EXPECT_EQ(handler_->presence(kLun), IFD_SUCCESS);
}

}  // namespace
}  // namespace zelta::pcsc
