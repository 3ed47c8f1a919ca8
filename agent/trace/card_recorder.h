// Writes a card script (docs/agent.md) that answers as the traced card did, secrets masked.
//
// A command that comes more than once is answered in the order of its responses. One that carries a
// secret becomes a pattern that takes any data; a secret response keeps its length and its status.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "agent/program/log.h"
#include "agent/trace/trace_record.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

// The script's text. One thread at a time.
class ScriptText {
 public:
  void add(const TraceRecord& record);
  std::string text() const;

 private:
  struct Answers {
    std::string pattern;
    bool open = false;  // takes any data
    bool masked = false;
    std::vector<std::string> responses;
  };

  void addExchange(const TraceRecord& record);

  Bytes atr_;  // the first one seen
  std::vector<Answers> commands_;
  std::map<std::string, std::size_t> known_;  // patterns, with their place in `commands_`
};

// Any thread. The file is replaced as a whole, at most once a second while commands come, and when
// the card or the driver leaves.
class CardRecorder final : public TraceSink {
 public:
  // Throws std::runtime_error with a message for people if the file cannot be written. `log`
  // outlives the recorder; a later failure is logged there once.
  CardRecorder(std::string file, Log& log);
  // Writes what has not been written yet.
  ~CardRecorder();
  CardRecorder(const CardRecorder&) = delete;
  CardRecorder& operator=(const CardRecorder&) = delete;

  bool wanted() const override { return true; }
  void take(const TraceRecord& record) override;

 private:
  void write() ZELTA_REQUIRES(mutex_);
  // Why the file cannot be written; empty if it has been.
  std::string tryWrite() const ZELTA_REQUIRES(mutex_);

  const std::string file_;
  Log& log_;
  platform::Mutex mutex_;
  ScriptText script_ ZELTA_GUARDED_BY(mutex_);
  TraceRecord::Clock::time_point written_ ZELTA_GUARDED_BY(mutex_);
  bool changed_ ZELTA_GUARDED_BY(mutex_) = false;
  bool failed_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta::agent
