#include "agent/remote/remote_card.h"

#include <stdexcept>
#include <utility>

#include "agent/program/failure.h"

namespace zelta::agent {

namespace {

constexpr std::uint32_t kNone = 0;  // the number of no card
constexpr char kElsewhere[] = "the card is at another machine; move it there";

}  // namespace

RemoteCard::RemoteCard(std::unique_ptr<Line> line, const LineTimes& times,
                       std::function<void()> onEnd, Log& log)
    : line_(std::move(line)), channel_(*line_, times), onEnd_(std::move(onEnd)), log_(log) {}

RemoteCard::~RemoteCard() { stop(); }

void RemoteCard::start(CardListener& listener) {
  if (!channel_.greet()) throw std::runtime_error("no card: " + channel_.describeEnd());
  listener_ = &listener;
  reader_ = std::thread([this] {
    guarded([this](const char* problem) { listener_->cardFailed(problem); }, [this] { read(); });
  });
}

void RemoteCard::stop() {
  interrupt();
  if (!reader_.joinable()) return;
  channel_.send(FrameKind::kBye);
  line_->cancel();
  reader_.join();
}

void RemoteCard::interrupt() {
  const platform::MutexLock lock(mutex_);
  interrupted_ = true;
  changed_.notifyAll();
}

void RemoteCard::ready() { channel_.send(FrameKind::kReady); }

std::string RemoteCard::insert() { return kElsewhere; }

std::string RemoteCard::remove() { return kElsewhere; }

Bytes RemoteCard::call(FrameKind kind, const Bytes& command) {
  platform::MutexLock lock(mutex_);
  const std::uint32_t card = card_;
  if (card == kNone || interrupted_) return {};
  Bytes payload = numberBytes(card);
  payload.insert(payload.end(), command.begin(), command.end());
  waiting_ = ++lastNumber_;
  answer_.reset();
  channel_.send(kind, *waiting_, std::move(payload));
  changed_.wait(lock, [this, card]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return answer_ || card_ != card || interrupted_;
  });
  waiting_.reset();
  return answer_ ? answer_->get() : Bytes();
}

void RemoteCard::read() {
  while (const std::optional<Frame> frame = channel_.next()) {
    if (take(*frame)) continue;
    channel_.refuse();
    break;
  }
  setCard(kNone);
  if (channel_.end() == LineEnd::kCancelled) return;
  if (channel_.end() == LineEnd::kBye) {
    onEnd_();
  } else {
    listener_->cardFailed(channel_.describeEnd().c_str());
  }
}

bool RemoteCard::take(const Frame& frame) {
  switch (frame.kind) {
    case FrameKind::kCardIn:
      setCard(frame.number);
      return frame.number != kNone;
    case FrameKind::kCardOut:
      setCard(kNone);
      return true;
    case FrameKind::kAnswer:
      takeAnswer(frame);
      return true;
    default:
      return false;
  }
}

void RemoteCard::takeAnswer(const Frame& frame) {
  {
    const platform::MutexLock lock(mutex_);
    if (waiting_ == frame.number) {
      answer_ = frame.payload;
      changed_.notifyAll();
      return;
    }
  }
  log_.debug("Answer " + std::to_string(frame.number) + " is late; thrown away");
}

void RemoteCard::setCard(std::uint32_t card) {
  platform::MutexLock lock(mutex_);
  const bool wasIn = card_ != kNone;
  lock.unlock();
  // The removal is announced before the call that it ends returns.
  if (wasIn) listener_->cardRemoved();
  lock.lock();
  card_ = card;
  changed_.notifyAll();
  lock.unlock();
  if (card != kNone) listener_->cardInserted();
}

}  // namespace zelta::agent
