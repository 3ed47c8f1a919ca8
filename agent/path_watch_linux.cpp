#include "agent/path_watch_linux.h"

#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace zelta::agent {

namespace {

constexpr std::uint32_t kNews = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_ATTRIB |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// The deepest folder on the way to `path` that exists, and the name awaited in it.
struct Nearest {
  std::filesystem::path folder;
  std::string name;
};

Nearest nearest(const std::filesystem::path& path) {
  std::filesystem::path folder = path.parent_path();
  std::filesystem::path name = path.filename();
  std::error_code ignored;
  while (folder != folder.root_path() && !std::filesystem::is_directory(folder, ignored)) {
    name = folder.filename();
    folder = folder.parent_path();
  }
  return {folder, name.string()};
}

}  // namespace

PathWatch::PathWatch(const std::vector<std::string>& paths)
    : inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (!inotify_.valid()) throw std::system_error(errno, std::generic_category(), "inotify_init1");
  for (const std::string& path : paths) add(path);
}

void PathWatch::add(const std::string& path) {
  // A folder made between looking and watching would be missed, so look again afterwards.
  for (Nearest found = nearest(path);;) {
    const int watch = inotify_add_watch(inotify_.get(), found.folder.c_str(), kNews);
    if (watch < 0 && errno != ENOENT && errno != ENOTDIR && errno != EACCES) {
      throw std::system_error(errno, std::generic_category(), "inotify_add_watch");
    }
    if (watch >= 0) awaited_.emplace(watch, found.name);
    const Nearest now = nearest(path);
    if (now.folder == found.folder) {
      if (watch < 0) complete_ = false;
      return;
    }
    found = now;
  }
}

bool PathWatch::takeNews() {
  alignas(inotify_event) std::array<char, 4096> buffer{};
  bool concerned = false;
  for (;;) {
    const ssize_t size = read(inotify_.get(), buffer.data(), buffer.size());
    if (size <= 0) return concerned;
    for (ssize_t at = 0; at < size;) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      // Without a name: the folder itself, or events were lost.
      if (event.len == 0) concerned = true;
      const std::string name = event.len == 0 ? "" : buffer.data() + at + sizeof event;
      const auto names = awaited_.equal_range(event.wd);
      for (auto entry = names.first; entry != names.second; ++entry) {
        if (entry->second == name) concerned = true;
      }
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
  }
}

}  // namespace zelta::agent
