#include "platform/files/path_watch_linux.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace zelta::platform {

namespace {

namespace fs = std::filesystem;

// Changes of a folder itself are seen in the folder above it.
constexpr std::uint32_t kFolderMask =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_ONLYDIR;
constexpr std::uint32_t kFileMask =
    IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;
constexpr int kMaxLinks = 40;  // as the kernel's own limit
constexpr std::size_t kEventBuffer = 4096;

}  // namespace

PathWatch::PathWatch(std::vector<std::string> paths)
    : paths_(std::move(paths)), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (!inotify_) throw std::system_error(errno, std::generic_category(), "inotify_init1");
  arm();
}

void PathWatch::arm() {
  problem_.clear();
  Awaited awaited;
  for (const std::string& path : paths_) {
    int links = kMaxLinks;
    follow(path, &links, &awaited);
  }
  for (const auto& [descriptor, name] : awaited_) {
    if (awaited.count(descriptor) == 0) inotify_rm_watch(inotify_.get(), descriptor);
  }
  awaited_ = std::move(awaited);
}

// Each folder is watched before the next part is examined, so that no later change is missed.
void PathWatch::follow(const fs::path& path, int* links, Awaited* awaited) {
  fs::path at;
  for (const fs::path& part : path) {
    if (!at.empty() && !watch(at, kFolderMask, part, awaited)) return;
    at /= part;
    std::error_code error;
    const fs::path target = fs::read_symlink(at, error);
    if (!error && (*links)-- > 0) follow(at.parent_path() / target, links, awaited);
  }
  watch(at, kFileMask, {}, awaited);
}

bool PathWatch::watch(const std::string& path, std::uint32_t mask, const std::string& name,
                      Awaited* awaited) {
  // One path may lead through the end of another, so the masks add up.
  const int descriptor = inotify_add_watch(inotify_.get(), path.c_str(), mask | IN_MASK_ADD);
  if (descriptor >= 0) {
    awaited->emplace(descriptor, name);
    return true;
  }
  if (errno == ENOENT || errno == ENOTDIR) return false;
  // For example a folder that may be passed through but not listed. What lies beyond it can still
  // be watched.
  const int error = errno;
  if (problem_.empty()) {
    problem_ = path + ": cannot be watched: " + std::generic_category().message(error);
  }
  return true;
}

bool PathWatch::takeNews() {
  bool found = false;
  alignas(inotify_event) std::array<char, kEventBuffer> buffer;
  for (;;) {
    const ssize_t length = read(inotify_.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      const bool wereLost = (event->mask & IN_Q_OVERFLOW) != 0;
      if (wereLost || concerns(event->wd, event->len == 0 ? "" : event->name)) {
        // A file is examined when its writer is done.
        isBeingWritten_ = (event->mask & IN_MODIFY) != 0;
        found = found || !isBeingWritten_;
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  if (found) arm();
  return found;
}

bool PathWatch::concerns(int descriptor, const std::string& name) const {
  const auto [first, last] = awaited_.equal_range(descriptor);
  return std::any_of(first, last, [&](const auto& each) { return each.second == name; });
}

}  // namespace zelta::platform
