// The behaviour of every implementation of the pipes: the system's, and the double that serialises
// like Windows. The world says how an implementation differs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/platform/pipe/pipe_calls.h"
#include "tests/platform/pipe/pipe_conformance.h"

namespace zelta::test {

namespace {

using platform::PipeArguments;
using platform::PipeHandleValue;
using testing::AnyOf;

constexpr char kName[] = "\\\\.\\pipe\\Zelta\\Tests\\first";
constexpr char kSddl[] = "D:(A;OICI;GA;;;LS)(A;OICI;GA;;;SY)";
// Duplex, first instance only.
constexpr std::uint32_t kOpenMode = 0x00080003;

class SerialisingWorld final : public PipeWorld {
 public:
  SerialisingWorld() {
    differences.listensAfterDisconnect = false;
    differences.servesBeforeConnect = true;
    differences.writeWaitsForReader = true;
    differences.disconnectWaits = true;
    differences.transferAfterDisconnect = error::kPipeNotConnected;
    differences.flushAfterDisconnect = pipeError(error::kPipeNotConnected);
    differences.secondDisconnect = pipeError(error::kPipeNotConnected);
  }
  platform::PipeApi& pipes() override { return pipes_; }
  std::unique_ptr<Client> connect(const std::string& name) override {
    const SerialisingPipes::Client client = pipes_.connectClient(name);
    if (client == SerialisingPipes::kNoClient) return nullptr;
    return std::make_unique<SerialisingClient>(pipes_, client);
  }
  void waitUntilBlocked(PipeHandleValue pipe, PipeCallThread&) override {
    pipes_.waitUntilQueued(pipe);
  }

 private:
  struct SerialisingClient final : public Client {
    SerialisingClient(SerialisingPipes& all, SerialisingPipes::Client client)
        : pipes(all), number(client) {}
    ~SerialisingClient() override { pipes.closeClient(number); }
    bool write(const Bytes& bytes) override { return pipes.clientWrite(number, bytes); }
    Bytes read(std::size_t size) override { return pipes.clientRead(number, size); }
    bool waitForDrop() override { return pipes.waitForDrop(number); }

    SerialisingPipes& pipes;
    const SerialisingPipes::Client number;
  };

  SerialisingPipes pipes_;
};

std::unique_ptr<PipeWorld> makeSerialisingPipeWorld() {
  return std::make_unique<SerialisingWorld>();
}

struct PipeWorldMaker {
  const char* name;
  std::unique_ptr<PipeWorld> (*make)();
};

struct WorldOfTest {
  const std::unique_ptr<PipeWorld> world;
};

class PipeTest : public testing::TestWithParam<PipeWorldMaker>,
                 private WorldOfTest,
                 protected PipeCalls {
 protected:
  PipeTest() : WorldOfTest{GetParam().make()}, PipeCalls(world->pipes()) {}

  void SetUp() override {
    pipe_ = create();
    ASSERT_NE(pipe_, platform::invalidPipe());
    ASSERT_NE(pipe_, platform::noPipe());
  }

  PipeHandleValue create(const std::string& name = kName) {
    PipeArguments arguments;
    arguments.openMode = kOpenMode;
    arguments.maxInstances = 1;
    EXPECT_TRUE(pipes_.convertSecurityDescriptor(kSddl, &arguments.securityDescriptor));
    return pipes_.create(name, arguments);
  }
  std::unique_ptr<PipeWorld::Client> connected() {
    auto client = world->connect(kName);
    EXPECT_NE(client, nullptr);
    EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
    return client;
  }

  void expectRead(PipeWorld::Client& client, const Bytes& sent) {
    ASSERT_TRUE(client.write(sent));
    Bytes bytes(sent.size());
    EXPECT_EQ(read(&bytes), kPipeOk);
    EXPECT_EQ(bytes, sent);
  }

  using WorldOfTest::world;
  const PipeDifferences& differs_ = world->differences;
};

TEST_P(PipeTest, EmptyDescriptor_IsRefusedOrHasNoEntries) {
  platform::SecurityDescriptor descriptor = nullptr;
  const PipeOutcome outcome =
      outcomeOf([&] { return pipes_.convertSecurityDescriptor("", &descriptor); });
  EXPECT_EQ(outcome.ok, !differs_.refusesEmptyDescriptor);
  EXPECT_EQ(outcome.error == error::kSuccess, outcome.ok);
}

TEST_P(PipeTest, NameInUse_IsRefusedAndTheFirstPipeServesOn) {
  const auto expectRefused = [this] {
    EXPECT_EQ(create(), platform::invalidPipe());
    EXPECT_EQ(platform::lastError(), differs_.nameInUse);
  };
  expectRefused();
  const auto client = connected();
  expectRefused();
  expectRead(*client, {1, 2});
}

TEST_P(PipeTest, ClosedName_TurnsClientsAwayAndCanBeCreatedAgain) {
  EXPECT_TRUE(pipes_.close(pipe_));
  EXPECT_EQ(world->connect(kName), nullptr);
  pipe_ = create();
  ASSERT_NE(pipe_, platform::invalidPipe());
  connected();
}

TEST_P(PipeTest, HandleThatIsNoPipes_FailsWithInvalidHandle) {
  const PipeHandleValue closed = create("\\\\.\\pipe\\Zelta\\Tests\\second");
  ASSERT_TRUE(pipes_.close(closed));
  char byte = 0;
  for (const PipeHandleValue handle : {platform::noPipe(), platform::invalidPipe(), closed}) {
    const bool isInvalid = handle == platform::invalidPipe();
    const PipeOutcome expected = pipeError(error::kInvalidHandle);
    EXPECT_EQ(outcomeOf([&] { return pipes_.connect(handle); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.disconnect(handle); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.cancel(handle); }),
              isInvalid ? differs_.cancelOfInvalidPipe : expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.read(handle, &byte, 1); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.write(handle, &byte, 1); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.flush(handle); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.close(handle); }),
              isInvalid ? differs_.closeOfInvalidPipe : expected);
  }
}

TEST_P(PipeTest, Connect_WaitsForAClientAndThenReportsThatItHasOne) {
  PipeCallThread call(connect_);
  world->waitUntilBlocked(pipe_, call);
  const auto client = world->connect(kName);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(call.outcome(), kPipeOk);
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
}

TEST_P(PipeTest, ClientThatComesBeforeTheConnect_LosesNothing) {
  const auto client = world->connect(kName);
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(client->write({1, 2}));
  Bytes first(1);
  EXPECT_EQ(read(&first),
            differs_.servesBeforeConnect ? kPipeOk : pipeError(error::kPipeListening));
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
  if (!differs_.servesBeforeConnect) {
    EXPECT_EQ(read(&first), kPipeOk);
  }
  Bytes second(1);
  EXPECT_EQ(read(&second), kPipeOk);
  EXPECT_EQ(first, Bytes{1});
  EXPECT_EQ(second, Bytes{2});
}

TEST_P(PipeTest, SecondClient_IsTurnedAwayAndTheFirstNoticesNothing) {
  const auto client = connected();
  for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(world->connect(kName), nullptr);
  expectRead(*client, {1});
  PipeCallThread writing([this] { return pipes_.write(pipe_, "ab", 2); });
  EXPECT_EQ(client->read(2), (Bytes{'a', 'b'}));
  EXPECT_EQ(writing.outcome(), kPipeOk);
}

TEST_P(PipeTest, TransferWithoutAClient_FailsAtOnce) {
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), pipeError(error::kPipeListening));
  EXPECT_EQ(write(bytes), pipeError(error::kPipeListening));
  EXPECT_EQ(flush(), differs_.flushWithoutClient);
  const auto client = connected();
  ASSERT_EQ(disconnect(), kPipeOk);
  EXPECT_EQ(read(&bytes), pipeError(differs_.transferAfterDisconnect));
  EXPECT_EQ(write(bytes), pipeError(differs_.transferAfterDisconnect));
  EXPECT_EQ(flush(), differs_.flushAfterDisconnect);
}

TEST_P(PipeTest, Read_WaitsForAllBytesOrTheFirstOnes) {
  const auto client = connected();
  Bytes bytes(4);
  PipeCallThread call([&] { return pipes_.read(pipe_, bytes.data(), 4); });
  world->waitUntilBlocked(pipe_, call);
  ASSERT_TRUE(client->write({1, 2}));
  if (differs_.readReturnsWhatIsThere) {
    EXPECT_EQ(call.outcome(), kPipeOk);
    EXPECT_EQ(bytes, (Bytes{1, 2, 0, 0}));
    return;
  }
  ASSERT_TRUE(client->write({3}));
  world->waitUntilBlocked(pipe_, call);
  ASSERT_TRUE(client->write({4, 5}));
  EXPECT_EQ(call.outcome(), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4}));
  Bytes next(1);
  EXPECT_EQ(read(&next), kPipeOk);
  EXPECT_EQ(next, Bytes{5});
}

TEST_P(PipeTest, TransferOfNothing_SucceedsWithAClient) {
  const auto client = connected();
  EXPECT_EQ(outcomeOf([this] { return pipes_.write(pipe_, nullptr, 0); }), kPipeOk);
  EXPECT_EQ(flush(), kPipeOk);
  PipeCallThread call([this] { return pipes_.read(pipe_, nullptr, 0); });
  if (differs_.readReturnsWhatIsThere) {
    world->waitUntilBlocked(pipe_, call);
    ASSERT_TRUE(client->write({1}));
  }
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_P(PipeTest, BytesOfAClientThatLeft_AreStillReadFieldByField) {
  auto client = connected();
  ASSERT_TRUE(client->write({1, 2, 3, 4}));
  if (!differs_.leavingClientTakesItsBytes) client.reset();
  for (const Bytes& field : {Bytes{1, 2}, Bytes{3, 4}}) {
    Bytes bytes(2);
    EXPECT_EQ(read(&bytes), kPipeOk);
    EXPECT_EQ(bytes, field);
  }
  client.reset();
  EXPECT_FALSE(readByte_());
  EXPECT_EQ(platform::lastError(), error::kBrokenPipe);
}

TEST_P(PipeTest, ClientThatLeaves_BreaksTheReadThatWaitsForItAndLaterWrites) {
  auto client = connected();
  if (!differs_.readReturnsWhatIsThere) {
    ASSERT_TRUE(client->write({1, 2, 3}));
  }
  Bytes bytes(4);
  PipeCallThread call([&] { return pipes_.read(pipe_, bytes.data(), 4); });
  world->waitUntilBlocked(pipe_, call);
  client.reset();
  EXPECT_EQ(call.outcome(), pipeError(error::kBrokenPipe));
  EXPECT_THAT(write({1}).error, AnyOf(error::kNoData, error::kBrokenPipe));
}

TEST_P(PipeTest, ClientThatLeavesWithACommandUnread_LeavesNothingToRead) {
  auto client = connected();
  ASSERT_TRUE(client->write({1, 2, 3}));
  PipeCallThread call([this] { return pipes_.write(pipe_, "ab", 2) && pipes_.flush(pipe_); });
  world->waitUntilBlocked(pipe_, call);
  client.reset();
  EXPECT_FALSE(call.outcome().ok);
  EXPECT_EQ(outcomeOf(readByte_), pipeError(error::kBrokenPipe));
}

TEST_P(PipeTest, ClientThatLeavesBeforeTheCommand_LeavesNothingToReadAfterIt) {
  auto client = connected();
  ASSERT_TRUE(client->write({1, 2, 3}));
  client.reset();
  EXPECT_FALSE(write({1}).ok);
  flush();
  EXPECT_EQ(outcomeOf(readByte_), pipeError(error::kBrokenPipe));
}

TEST_P(PipeTest, Write_WaitsForItsReaderOrHandsOver) {
  const auto client = connected();
  PipeCallThread call([this] { return pipes_.write(pipe_, "abc", 3); });
  if (differs_.writeWaitsForReader) world->waitUntilBlocked(pipe_, call);
  EXPECT_EQ(client->read(3), (Bytes{'a', 'b', 'c'}));
  EXPECT_EQ(call.outcome(), kPipeOk);
  EXPECT_EQ(flush(), kPipeOk);
}

TEST_P(PipeTest, LargeMessages_TravelWholeBothWays) {
  const auto client = connected();
  constexpr std::uint32_t kSize = 300000;
  Bytes sent(kSize);
  for (std::size_t i = 0; i < kSize; ++i) sent[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  PipeCallThread writing(
      [&] { return pipes_.write(pipe_, sent.data(), kSize) && pipes_.flush(pipe_); });
  EXPECT_EQ(client->read(kSize), sent);
  EXPECT_EQ(writing.outcome(), kPipeOk);
  Bytes received(kSize);
  PipeCallThread reading([&] { return pipes_.read(pipe_, received.data(), kSize); });
  EXPECT_TRUE(client->write(sent));
  EXPECT_EQ(reading.outcome(), kPipeOk);
  EXPECT_EQ(received, sent);
}

TEST_P(PipeTest, CancelWithNothingBlocked_ReachesNoLaterOperation) {
  EXPECT_EQ(cancel(), differs_.cancelOfNothing);
  const auto client = connected();
  EXPECT_EQ(cancel(), differs_.cancelOfNothing);
  expectRead(*client, {1});
  EXPECT_EQ(cancel(), differs_.cancelOfNothing);
}

TEST_P(PipeTest, Cancel_ReleasesABlockedCallAndTheNextOneServes) {
  const Bytes large(4 * 1024 * 1024);
  const auto expectCancelled = [this](const std::function<bool()>& blocking) {
    PipeCallThread call(blocking);
    world->waitUntilBlocked(pipe_, call);
    EXPECT_EQ(cancel(), kPipeOk);
    EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
    EXPECT_EQ(cancel(), differs_.cancelOfNothing);
  };
  expectCancelled(connect_);
  const auto client = connected();
  expectCancelled(readByte_);
  expectRead(*client, {9});
  expectCancelled(
      [&] { return pipes_.write(pipe_, large.data(), static_cast<std::uint32_t>(large.size())); });
}

TEST_P(PipeTest, DisconnectWithoutAClient_DoesNothing) {
  EXPECT_EQ(disconnect(), differs_.disconnectWithoutClient);
}

TEST_P(PipeTest, Disconnect_DropsTheClient) {
  const auto client = connected();
  EXPECT_EQ(disconnect(), kPipeOk);
  EXPECT_TRUE(client->waitForDrop());
  EXPECT_FALSE(client->write({1}));
  EXPECT_EQ(disconnect(), differs_.secondDisconnect);
}

TEST_P(PipeTest, BytesThatDisconnectFindsUnread_DoNotReachTheNextClientsReads) {
  const auto first = connected();
  ASSERT_TRUE(first->write({1, 1, 1, 1}));
  ASSERT_EQ(disconnect(), kPipeOk);
  PipeCallThread call(connect_);
  world->waitUntilBlocked(pipe_, call);
  const auto second = world->connect(kName);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(call.outcome(), kPipeOk);
  expectRead(*second, {2});
}

TEST_P(PipeTest, DisconnectedPipe_TakesTheNextClient) {
  for (int round = 0; round < 20; ++round) {
    PipeCallThread call(connect_);
    if (!differs_.listensAfterDisconnect) world->waitUntilBlocked(pipe_, call);
    const auto client = world->connect(kName);
    ASSERT_NE(client, nullptr);
    EXPECT_THAT(call.outcome().error, AnyOf(error::kSuccess, error::kPipeConnected));
    EXPECT_EQ(disconnect(), kPipeOk);
  }
}

TEST_P(PipeTest, DisconnectThatMeetsABlockedRead_EndsItOrWaitsForIt) {
  const auto client = connected();
  PipeCallThread reading(readByte_);
  world->waitUntilBlocked(pipe_, reading);
  PipeCallThread disconnecting([this] { return pipes_.disconnect(pipe_); });
  if (differs_.disconnectWaits) {
    // It would wait for ever; a cancel ends both.
    EXPECT_EQ(cancel(), kPipeOk);
    EXPECT_EQ(reading.outcome(), pipeError(error::kOperationAborted));
  } else {
    EXPECT_EQ(reading.outcome(), pipeError(differs_.readThatDisconnectEnds));
  }
  EXPECT_EQ(disconnecting.outcome(), kPipeOk);
}

TEST_P(PipeTest, Close_DropsTheClient) {
  const auto client = connected();
  EXPECT_TRUE(pipes_.close(pipe_));
  EXPECT_TRUE(client->waitForDrop());
  EXPECT_EQ(cancel(), pipeError(error::kInvalidHandle));
  pipe_ = platform::noPipe();
}

INSTANTIATE_TEST_SUITE_P(, PipeTest,
                         testing::Values(PipeWorldMaker{"System", &makeSystemPipeWorld},
                                         PipeWorldMaker{"Serialising", &makeSerialisingPipeWorld}),
                         [](const auto& maker) { return std::string(maker.param.name); });

}  // namespace

}  // namespace zelta::test
