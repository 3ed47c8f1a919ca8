#include "tests/support/child_process.h"

#include <utility>

namespace zelta::test {

using platform::MutexLock;

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments)
    : system_(start(program, arguments)), reader_([this] { readLines(); }) {}

ChildProcess::~ChildProcess() {
  if (!exitCode_) {
    kill();
    system_->wait();
  }
  reader_.join();
}

std::optional<std::string> ChildProcess::readLine() {
  MutexLock lock(mutex_);
  changed_.waitFor(lock, kLimit,
                   [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return ended_ || !lines_.empty(); });
  if (lines_.empty()) return std::nullopt;
  std::string line = std::move(lines_.front());
  lines_.pop_front();
  return line;
}

bool ChildProcess::readLineWith(const std::string& text) {
  while (const std::optional<std::string> line = readLine()) {
    if (line->find(text) != std::string::npos) return true;
  }
  return false;
}

std::optional<int> ChildProcess::wait() {
  if (!exitCode_) {
    MutexLock lock(mutex_);
    const bool ended =
        changed_.waitFor(lock, kLimit, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return ended_; });
    if (ended) exitCode_ = system_->wait();
  }
  return exitCode_;
}

void ChildProcess::readLines() {
  std::string line;
  for (std::string bytes = system_->read(); !bytes.empty(); bytes = system_->read()) {
    const MutexLock lock(mutex_);
    for (const char character : bytes) {
      if (character == '\n') {
        lines_.push_back(std::exchange(line, {}));
      } else if (character != '\r') {
        line += character;
      }
    }
    changed_.notifyAll();
  }
  const MutexLock lock(mutex_);
  if (!line.empty()) lines_.push_back(line);
  ended_ = true;
  changed_.notifyAll();
}

}  // namespace zelta::test
