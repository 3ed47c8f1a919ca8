#include "tools/logs/log_folder.h"

#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace zelta::logs {

std::vector<std::filesystem::path> logFiles(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("zelta_vsc_", 0) == 0 && entry.path().extension() == ".txt") {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

LogReader::LogReader(std::filesystem::path folder, bool fromOldest)
    : folder_(std::move(folder)), fromOldest_(fromOldest) {}

void LogReader::open() {
  stream_ = std::ifstream(current_, std::ios::binary);
  if (!stream_.is_open() && errno == EACCES) {
    throw std::system_error(errno, std::generic_category(), current_.string());
  }
}

void LogReader::readFile(const Line& line) {
  stream_.clear();
  std::string text;
  while (std::getline(stream_, text)) {
    if (stream_.eof()) {  // no line end yet
      partial_ += text;
      return;
    }
    text.insert(0, std::exchange(partial_, {}));
    line(text);
  }
}

void LogReader::readNew(const Line& line) {
  const auto files = logFiles(folder_);
  if (current_.empty()) {
    if (files.empty()) return;
    current_ = fromOldest_ ? files.front() : files.back();
    open();
  }
  readFile(line);
  for (auto next = std::upper_bound(files.begin(), files.end(), current_); next != files.end();
       ++next) {
    if (!partial_.empty()) line(std::exchange(partial_, {}));
    current_ = *next;
    open();
    readFile(line);
  }
}

namespace {

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

}  // namespace

FolderWatch::FolderWatch(const std::filesystem::path& folder) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signals_ = checked(signalfd(-1, &set, SFD_CLOEXEC), "signalfd");
  watch_ = checked(inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "inotify");
  checked(inotify_add_watch(watch_, folder.c_str(),
                            IN_CREATE | IN_MODIFY | IN_MOVED_TO | IN_DELETE_SELF | IN_ONLYDIR),
          folder.c_str());
}

FolderWatch::~FolderWatch() {
  if (watch_ >= 0) close(watch_);
  if (signals_ >= 0) close(signals_);
}

bool FolderWatch::wait() {
  std::array<pollfd, 2> ready = {{{watch_, POLLIN, 0}, {signals_, POLLIN, 0}}};
  while (poll(ready.data(), ready.size(), -1) < 0) {
    if (errno != EINTR) return false;
  }
  if (ready[1].revents != 0) return false;
  alignas(inotify_event) std::array<char, 16384> buffer;
  bool gone = false;
  for (ssize_t size; (size = read(watch_, buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      gone |= (event->mask & (IN_DELETE_SELF | IN_IGNORED)) != 0;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  return !gone;
}

}  // namespace zelta::logs
