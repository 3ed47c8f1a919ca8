#include "agent/trace/trace_hub.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

namespace zelta::agent {
namespace {

using Kind = TraceRecord::Kind;

TraceRecord verify() {
  TraceRecord record;
  record.kind = Kind::kTransmit;
  record.time = TraceRecord::Clock::time_point(std::chrono::seconds(1));
  record.duration = std::chrono::microseconds(7);
  record.command = Bytes{0x00, 0x20, 0x00, 0x80, 0x01, 0x31};
  record.response = Bytes{0x90, 0x00};
  record.hidden.command = {5, 1};
  return record;
}

TraceRecord insertion() {
  TraceRecord record;
  record.time = TraceRecord::Clock::time_point(std::chrono::microseconds(1500001));
  return record;
}

TEST(TraceRecords, AreOneObjectALine) {
  EXPECT_EQ(toJson(verify(), false),
            "{\"time_us\":1000000,\"kind\":\"transmit\",\"duration_us\":7,"
            "\"command\":\"0020008001**\",\"response\":\"9000\",\"masked\":true}");
  EXPECT_EQ(toJson(verify(), true),
            "{\"time_us\":1000000,\"kind\":\"transmit\",\"duration_us\":7,"
            "\"command\":\"002000800131\",\"response\":\"9000\",\"masked\":false}");
  EXPECT_EQ(toJson(insertion(), false), "{\"time_us\":1500001,\"kind\":\"insert\"}");
}

TEST(TraceRecords, EveryKindHasItsName) {
  std::string names;
  for (const Kind kind : {Kind::kInsert, Kind::kRemove, Kind::kConnect, Kind::kDisconnect,
                          Kind::kReset, Kind::kAtr, Kind::kTransmit, Kind::kReady, Kind::kLate}) {
    names += std::string(kindName(kind)) + " ";
  }
  EXPECT_EQ(names, "insert remove connect disconnect reset atr transmit ready late ");
}

TEST(TraceHub, Follower_GetsSecretsOnlyIfItAskedForThem) {
  TraceHub hub;
  EXPECT_FALSE(hub.wanted());
  int woken = 0;
  const auto masked = hub.follow(false, "first\n", [&woken] { ++woken; });
  auto open = hub.follow(true, "", [] {});
  EXPECT_TRUE(hub.wanted());
  hub.take(verify());
  EXPECT_EQ(woken, 1);
  EXPECT_EQ(masked->take(), "first\n" + toJson(verify(), false) + "\n");
  EXPECT_EQ(masked->take(), "");
  EXPECT_EQ(open->take(), toJson(verify(), true) + "\n");
  open.reset();
  hub.take(insertion());
  EXPECT_EQ(masked->take(), toJson(insertion(), false) + "\n");
}

TEST(TraceHub, NobodyLeft_MeansThatNothingIsWanted) {
  TraceHub hub;
  hub.follow(false, "", [] {}).reset();
  EXPECT_FALSE(hub.wanted());
}

TEST(TraceHub, SlowFollower_LosesRecordsAndIsToldHowMany) {
  const std::string line = toJson(insertion(), false) + "\n";
  TraceHub hub(2 * line.size());
  const auto feed = hub.follow(false, "", [] {});
  for (int i = 0; i < 5; ++i) hub.take(insertion());
  const std::string taken = feed->take();
  ASSERT_EQ(taken.substr(0, 2 * line.size()), line + line);
  const auto lost = nlohmann::json::parse(taken.substr(2 * line.size()));
  EXPECT_EQ(lost["kind"], "lost");
  EXPECT_EQ(lost["count"], 3);
  hub.take(insertion());
  EXPECT_EQ(feed->take(), line);
}

}  // namespace
}  // namespace zelta::agent
