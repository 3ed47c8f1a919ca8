// The card of the agent at the other end of a line, which has started this agent.
//
// A call is one frame there and one back. It ends early if the card leaves or the line ends; a late
// answer has an old number and is discarded.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "agent/card/card_backend.h"
#include "agent/program/log.h"
#include "agent/remote/frame_channel.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

// Its own thread reads the line. If the line breaks, the card leaves and its listener learns of the
// failure.
class RemoteCard final : public CardBackend {
 public:
  // `onEnd` is called on the card's thread if the other end ends as asked. `log` outlives the card.
  RemoteCard(std::unique_ptr<Line> line, const LineTimes& times, std::function<void()> onEnd,
             Log& log);
  ~RemoteCard() override;

  std::string name() const override { return "remote"; }
  // Waits for the other end's hello.
  void start(CardListener& listener) override;
  void stop() override;
  Bytes reset() override { return call(FrameKind::kReset, {}); }
  Bytes atr() override { return call(FrameKind::kAtr, {}); }
  Bytes transmit(const Bytes& command) override { return call(FrameKind::kTransmit, command); }
  void ready() override;
  std::string insert() override;
  std::string remove() override;
  void interrupt() override;

 private:
  Bytes call(FrameKind kind, const Bytes& command);
  void read();
  // False if the frame makes no sense.
  [[nodiscard]] bool take(const Frame& frame);
  void takeAnswer(const Frame& frame);
  // Sets the current card (0: none) and tells the listener.
  void setCard(std::uint32_t card);

  const std::unique_ptr<Line> line_;
  FrameChannel channel_;
  const std::function<void()> onEnd_;
  Log& log_;
  CardListener* listener_ = nullptr;  // non-owning; from start to stop

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  std::uint32_t card_ ZELTA_GUARDED_BY(mutex_) = 0;  // written by the card's thread only
  bool interrupted_ ZELTA_GUARDED_BY(mutex_) = false;
  std::uint32_t lastNumber_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::optional<std::uint32_t> waiting_ ZELTA_GUARDED_BY(mutex_);         // the call's number
  std::optional<platform::SecretBytes> answer_ ZELTA_GUARDED_BY(mutex_);  // of that call
  std::thread reader_;
};

}  // namespace zelta::agent
