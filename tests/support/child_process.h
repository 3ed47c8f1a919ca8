// A program run as a process of its own and talked to by lines.
//
// Owned by the test, which uses it from one thread. What the process writes, to its standard output
// and its error output, comes as one stream of lines, read by a thread of this object's.
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
  // Longer than anything takes that does not hang.
  static constexpr std::chrono::seconds kLimit{60};
  // The exit code of a process that `kill` ended.
  static constexpr int kKilled = 137;

  // Throws std::runtime_error if it cannot be started. Arguments hold no quotation marks.
  explicit ChildProcess(const std::string& program, const std::vector<std::string>& arguments = {});
  // Kills what still runs.
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
  // Ends it as a crash does: nothing of the program's own runs any more.
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
    // What there is, at least a byte; empty at the end.
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
  std::thread reader_;                           // last: it uses the others
};

}  // namespace zelta::test
