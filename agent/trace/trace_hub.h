// Passes trace records on to followers, each at its own pace.
//
// Any thread. A follower's queue is bounded: records that do not fit are lost and counted, because
// the card must not wait for a reader.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/control/control_feed.h"
#include "agent/trace/trace_record.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

class TraceHub final : public TraceSink {
 public:
  // `longestQueue`: bytes that a follower may leave untaken.
  explicit TraceHub(std::size_t longestQueue = std::size_t{4} << 20);
  // All feeds must be destroyed before.
  ~TraceHub();
  TraceHub(const TraceHub&) = delete;
  TraceHub& operator=(const TraceHub&) = delete;

  bool wanted() const override { return wanted_; }
  void take(const TraceRecord& record) override;

  // Gives every record to `sink` as well, which outlives the hub. Call before the first record.
  void alsoTell(TraceSink& sink);
  // A feed with one JSON line for each later record; `first` comes before them, unchanged.
  std::unique_ptr<ControlFeed> follow(bool secrets, std::string first, std::function<void()> wake);

 private:
  class Feed;

  void forget(const Feed& feed);

  const std::size_t longestQueue_;
  TraceSink* other_ = nullptr;  // not owned; may be null
  std::atomic<bool> wanted_{false};
  platform::Mutex mutex_;
  std::vector<Feed*> feeds_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::agent
