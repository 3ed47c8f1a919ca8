#include "platform/registry_watch_linux.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

namespace zelta::platform {

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                      IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Not IN_MODIFY: a file is looked at when its writer is done.
constexpr std::uint32_t kFileMask =
    IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;
constexpr int kMaxLinks = 40;  // as the kernel's own limit
constexpr std::size_t kEventBuffer = 16 * 1024;

// The thread takes none of the process's signals.
std::thread startWithoutSignals(std::function<void()> body) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread thread(std::move(body));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
}

void prepend(const fs::path& path, std::deque<std::string>* names) {
  const fs::path relative = path.relative_path();
  names->insert(names->begin(), relative.begin(), relative.end());
}

}  // namespace

std::unique_ptr<FileWatcher> FileWatcher::create(const std::string& path, OnChange onChange,
                                                 OnProblem onProblem) {
  ScopedFd inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ScopedFd stop(eventfd(0, EFD_CLOEXEC));
  if (!inotify || !stop) return nullptr;
  return std::make_unique<FileWatcher>(path, std::move(onChange), std::move(onProblem),
                                       std::move(inotify), std::move(stop));
}

FileWatcher::FileWatcher(const std::string& path, OnChange onChange, OnProblem onProblem,
                         ScopedFd inotify, ScopedFd stop)
    : path_(fs::absolute(path)),
      onChange_(std::move(onChange)),
      onProblem_(std::move(onProblem)),
      inotify_(std::move(inotify)),
      stop_(std::move(stop)) {
  watchPath();
  thread_ = startWithoutSignals([this] { run(); });
}

FileWatcher::~FileWatcher() {
  eventfd_write(stop_.get(), 1);
  thread_.join();
}

void FileWatcher::run() {
  std::array<pollfd, 2> waits{{{stop_.get(), POLLIN, 0}, {inotify_.get(), POLLIN, 0}}};
  for (;;) {
    if (poll(waits.data(), waits.size(), -1) < 0) continue;  // interrupted
    if (waits[0].revents != 0) return;
    if (!takeEvents()) continue;
    try {
      watchPath();
    } catch (const std::exception& error) {
      onProblem_(path_ + ": cannot be watched: " + error.what());
    }
    onChange_();
  }
}

void FileWatcher::watchPath() {
  Watches watches;
  std::deque<std::string> names;
  prepend(path_, &names);
  fs::path at = "/";
  int links = 0;
  while (!names.empty()) {
    const std::string name = std::exchange(names.front(), {});
    names.pop_front();
    if (name.empty() || name == ".") continue;
    if (name == "..") {
      at = at.parent_path();
      continue;
    }
    if (!watch(at, kFolderMask, name, &watches)) break;
    std::error_code error;
    const fs::path next = at / name;
    const fs::file_status status = fs::symlink_status(next, error);
    if (!fs::exists(status)) break;
    if (fs::is_symlink(status)) {
      const fs::path target = fs::read_symlink(next, error);
      if (error || ++links > kMaxLinks) break;
      prepend(target, &names);
      if (target.is_absolute()) at = "/";
      continue;
    }
    if (names.empty()) watch(next, kFileMask, {}, &watches);
    at = next;
  }
  for (const auto& [descriptor, unused] : watches_) {
    if (watches.count(descriptor) == 0) inotify_rm_watch(inotify_.get(), descriptor);
  }
  watches_ = std::move(watches);
}

bool FileWatcher::watch(const std::string& path, std::uint32_t mask, const std::string& name,
                        Watches* watches) {
  const int descriptor = inotify_add_watch(inotify_.get(), path.c_str(), mask);
  if (descriptor >= 0) {
    (*watches)[descriptor].insert(name);
    return true;
  }
  if (errno == ENOENT || errno == ENOTDIR) return false;
  // A folder that may be passed through but not listed, say: what lies behind it can be watched.
  onProblem_(path + ": cannot be watched: " + std::generic_category().message(errno));
  return true;
}

bool FileWatcher::takeEvents() {
  bool found = false;
  alignas(inotify_event) std::array<char, kEventBuffer> buffer;
  for (;;) {
    const ssize_t length = read(inotify_.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return found;
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      found = found || concerns(event);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}

bool FileWatcher::concerns(const void* raw) const {
  const auto* event = static_cast<const inotify_event*>(raw);
  if ((event->mask & IN_Q_OVERFLOW) != 0) return true;
  const auto watched = watches_.find(event->wd);
  if (watched == watches_.end()) return false;
  // Without a name it is about the folder or the file itself.
  return event->len == 0 || watched->second.count(event->name) != 0;
}

}  // namespace zelta::platform
