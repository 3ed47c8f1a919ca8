// What happens to the card, one record an event, and the interface that receives the records.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "agent/trace/secret_mask.h"
#include "platform/process/wipe.h"

namespace zelta::agent {

struct TraceRecord {
  enum class Kind {
    kInsert,
    kRemove,
    kConnect,     // the driver has accepted the connection
    kDisconnect,  // the driver is gone
    kReset,       // the ATR, after a reset
    kAtr,
    kTransmit,
    kReady,  // the driver starts to use the card
    kLate,   // the agent has answered in the card's place
  };
  using Clock = std::chrono::system_clock;

  Kind kind = Kind::kInsert;
  Clock::time_point time = Clock::now();  // when it began
  std::chrono::microseconds duration{0};  // of kReset, kAtr, kTransmit
  platform::SecretBytes command{};        // of kTransmit; of kLate its header
  platform::SecretBytes response{};       // empty: none
  HiddenParts hidden{};
};

// The names of the kinds in a trace.
const char* kindName(TraceRecord::Kind kind);

// One JSON object on one line, as docs/trace.md describes it. Secrets are masked unless wanted.
std::string toJson(const TraceRecord& record, bool secrets);

// Microseconds since 1970.
std::int64_t toMicroseconds(TraceRecord::Clock::time_point time);

// Any thread; the records of commands come one at a time. Returns within a moment: the card waits.
class TraceSink {
 public:
  // Whether anybody reads what `take` would get.
  virtual bool wanted() const = 0;
  virtual void take(const TraceRecord& record) = 0;

 protected:
  ~TraceSink() = default;
};

}  // namespace zelta::agent
