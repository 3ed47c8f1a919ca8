#include "agent/trace/trace_hub.h"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <utility>

namespace zelta::agent {

namespace {

std::string lostRecord(std::uint64_t count) {
  const nlohmann::ordered_json json = {
      {"time_us", toMicroseconds(TraceRecord::Clock::now())}, {"kind", "lost"}, {"count", count}};
  return json.dump() + "\n";
}

}  // namespace

class TraceHub::Feed final : public ControlFeed {
 public:
  Feed(TraceHub& hub, bool secrets, std::string first, std::function<void()> wake)
      : hub_(hub), secrets_(secrets), wake_(std::move(wake)), queue_(std::move(first)) {}
  ~Feed() override { hub_.forget(*this); }

  std::string take() override {
    const platform::MutexLock lock(mutex_);
    std::string taken = std::exchange(queue_, {});
    if (lost_ != 0) taken += lostRecord(std::exchange(lost_, 0));
    return taken;
  }

  void put(const TraceRecord& record) {
    const std::string line = toJson(record, secrets_) + "\n";
    {
      const platform::MutexLock lock(mutex_);
      // After a loss nothing follows until the follower has been told.
      if (lost_ != 0 || queue_.size() + line.size() > hub_.longestQueue_) {
        ++lost_;
      } else {
        queue_ += line;
      }
    }
    wake_();
  }

 private:
  TraceHub& hub_;
  const bool secrets_;
  const std::function<void()> wake_;
  platform::Mutex mutex_;
  std::string queue_ ZELTA_GUARDED_BY(mutex_);
  std::uint64_t lost_ ZELTA_GUARDED_BY(mutex_) = 0;
};

TraceHub::TraceHub(std::size_t longestQueue) : longestQueue_(longestQueue) {}

TraceHub::~TraceHub() = default;

void TraceHub::take(const TraceRecord& record) {
  if (other_ != nullptr) other_->take(record);
  const platform::MutexLock lock(mutex_);
  for (Feed* feed : feeds_) feed->put(record);
}

void TraceHub::alsoTell(TraceSink& sink) {
  other_ = &sink;
  wanted_ = true;
}

std::unique_ptr<ControlFeed> TraceHub::follow(bool secrets, std::string first,
                                              std::function<void()> wake) {
  auto feed = std::make_unique<Feed>(*this, secrets, std::move(first), std::move(wake));
  const platform::MutexLock lock(mutex_);
  feeds_.push_back(feed.get());
  wanted_ = true;
  return feed;
}

void TraceHub::forget(const Feed& feed) {
  const platform::MutexLock lock(mutex_);
  feeds_.erase(std::remove(feeds_.begin(), feeds_.end(), &feed), feeds_.end());
  wanted_ = other_ != nullptr || !feeds_.empty();
}

}  // namespace zelta::agent
