// Not sd-event: one poll of inotify and signals, between two rounds of the caller's loop.
#include "tools/logs/log_folder.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <system_error>
#include <tuple>
#include <utility>

#include "platform/process/environment.h"

namespace zelta::logs {

std::string defaultFolder() {
  return platform::environmentOr("ZELTA_PROGRAM_DATA", "/var/log") + "/Vornhalt/ZeltaAgent/logs";
}

std::vector<std::filesystem::path> logFiles(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
    const std::string name = entry.path().filename().string();
    const bool isNamedSo = name.rfind("zelta_vsc_", 0) == 0 && entry.path().extension() == ".txt";
    // Any user who may write to the folder may have made anything with that name.
    std::error_code gone;
    if (isNamedSo && is_regular_file(entry.symlink_status(gone))) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::optional<bool> isBeingWritten(const std::filesystem::path& file) {
  const platform::ScopedFd opened(
      open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!opened) return std::nullopt;
  // The system grants this only if nobody has the file open for writing.
  if (fcntl(opened.get(), F_SETLEASE, F_RDLCK) == 0) {
    fcntl(opened.get(), F_SETLEASE, F_UNLCK);
    return false;
  }
  return errno == EAGAIN ? std::optional(true) : std::nullopt;
}

LogReader::LogReader(std::filesystem::path folder, bool fromOldest)
    : folder_(std::move(folder)), fromOldest_(fromOldest) {}

std::optional<LogReader::File> LogReader::look(const std::filesystem::path& path) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  struct statx found;
  if (statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &found) != 0 ||
      !S_ISREG(found.stx_mode)) {
    return std::nullopt;
  }
  File file;
  file.device = makedev(found.stx_dev_major, found.stx_dev_minor);
  file.number = found.stx_ino;
  if ((found.stx_mask & STATX_BTIME) != 0) {
    file.made = found.stx_btime.tv_sec * kNanoseconds + found.stx_btime.tv_nsec;
  }
  file.size = found.stx_size;
  return file;
}

std::uint64_t LogReader::startOf(const std::filesystem::path& path, const File& file) const {
  if (const auto before = files_.find(path); before != files_.end()) {
    const File& known = before->second;
    const bool isSame = std::tie(known.device, known.number, known.made) ==
                        std::tie(file.device, file.number, file.made);
    return isSame && known.position <= file.size ? known.position : 0;
  }
  const bool isShown =
      begun_ || fromOldest_ || path == current_ || isBeingWritten(path).value_or(false);
  return isShown ? 0 : file.size;
}

// Whether the rest of a line can still come. `end` is the file's size when it was read.
bool LogReader::mayGrow(const std::filesystem::path& path, std::uint64_t end) const {
  if (path == current_ || isBeingWritten(path).value_or(true)) return true;
  const auto file = look(path);  // its writer may have written more before it left
  return file && file->size != end;
}

std::uint64_t LogReader::readFrom(const std::filesystem::path& path, std::uint64_t position,
                                  const Line& line) const {
  std::ifstream stream(path, std::ios::binary);
  if (!stream.is_open() && errno == EACCES) {
    throw std::system_error(errno, std::generic_category(), path.string());
  }
  stream.seekg(static_cast<std::streamoff>(position));
  std::string text;
  while (std::getline(stream, text)) {
    const bool hasEnd = !stream.eof();
    if (!hasEnd && mayGrow(path, position + text.size())) return position;
    line(text, path);
    position += text.size() + (hasEnd ? 1 : 0);
  }
  return position;
}

void LogReader::readNew(const Line& line) {
  const auto paths = logFiles(folder_);
  current_ = paths.empty() ? std::filesystem::path() : paths.back();
  std::map<std::filesystem::path, File> files;
  for (const auto& path : paths) {
    auto file = look(path);
    if (!file) continue;  // removed meanwhile
    file->position = startOf(path, *file);
    if (file->position < file->size) file->position = readFrom(path, file->position, line);
    files.emplace(path, *file);
  }
  files_ = std::move(files);
  begun_ = true;
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
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signals_.reset(checked(signalfd(-1, &set, SFD_CLOEXEC), "signalfd"));
  watch_.reset(checked(inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "inotify"));
  checked(inotify_add_watch(
              watch_.get(), folder.c_str(),
              IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE_SELF | IN_ONLYDIR),
          folder.c_str());
}

bool FolderWatch::wait() {
  std::array<pollfd, 2> ready = {{{watch_.get(), POLLIN, 0}, {signals_.get(), POLLIN, 0}}};
  while (poll(ready.data(), ready.size(), -1) < 0) {
    if (errno != EINTR) return false;
  }
  if (ready[1].revents != 0) return false;
  alignas(inotify_event) std::array<char, 16384> buffer;
  bool gone = false;
  for (ssize_t size; (size = read(watch_.get(), buffer.data(), buffer.size())) > 0;) {
    for (ssize_t at = 0; at < size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      gone |= (event->mask & (IN_DELETE_SELF | IN_IGNORED)) != 0;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  return !gone;
}

}  // namespace zelta::logs
