// A program run as a separate process that exchanges lines with the test.
//
// Owned by the test, which uses it from one thread. Its standard output and its error output come
// as one stream of lines, read by a thread of this object.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/sync/sync.h"

namespace zelta::test {

class ChildProcess {
 public:
  // Longer than any operation that does not hang.
  static constexpr std::chrono::seconds kLimit{60};
  // The exit code of a process that `kill` ended.
  static constexpr int kKilled = 137;

  // Throws std::runtime_error if it cannot be started. Arguments hold no quotation marks.
  explicit ChildProcess(const std::string& program, const std::vector<std::string>& arguments = {});
  // Kills the process if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Writes to its standard input. False if it has ended.
  bool writeLine(const std::string& line) { return system_->write(line + "\n"); }
  // The next line without its end; none if the output has ended or the limit has passed.
  std::optional<std::string> readLine() ZELTA_EXCLUDES(mutex_);
  // Reads on to a line with that text in it. False if there is none.
  bool readLineWith(const std::string& text) ZELTA_EXCLUDES(mutex_);

  // The system's number of the process.
  unsigned long id() const { return system_->id(); }
  // Ends it like a crash: no code of the program runs any more.
  void kill() { system_->kill(); }
  // Waits for its end and gives its exit code; none if it runs on beyond the limit.
  std::optional<int> wait() ZELTA_EXCLUDES(mutex_);

 private:
  // The process and this side's ends of its streams, by the system's own calls.
  class System {
   public:
    virtual ~System() = default;
    virtual unsigned long id() const = 0;
    virtual bool write(const std::string& bytes) = 0;
    // Blocks for at least one byte; empty at the end.
    virtual std::string read() = 0;
    // Does nothing if it has ended.
    virtual void kill() = 0;
    // Waits; the exit code.
    virtual int wait() = 0;
  };
  static std::unique_ptr<System> start(const std::string& program,
                                       const std::vector<std::string>& arguments);

  class LinuxSystem;
  class Win32System;

  void readLines() ZELTA_EXCLUDES(mutex_);

  const std::unique_ptr<System> system_;
  std::optional<int> exitCode_;
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  std::deque<std::string> lines_ ZELTA_GUARDED_BY(mutex_);
  bool ended_ ZELTA_GUARDED_BY(mutex_) = false;  // the output, and so the process
  std::thread reader_;                           // last: uses the members above
};

}  // namespace zelta::test
