#include "logging/text_file.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/files/file.h"
#include "platform/process/ports.h"

namespace zelta {

namespace {

using platform::MutexLock;

// The shortest time between two checks whether the file was removed.
constexpr std::int64_t kLookPeriod = 1000 * platform::kClockUnitsPerMillisecond;

std::string checkedPath(std::string path) {
  if (path.empty()) throw std::invalid_argument("File path is empty");
  return path;
}

// How many of the file's first `size` bytes are whole lines; -1 if it cannot be read.
std::int64_t lengthOfWholeLines(const std::filesystem::path& path, std::int64_t size) {
  std::array<char, 4096> block;
  std::ifstream file(path, std::ios::binary);
  for (std::int64_t end = size; end > 0;) {
    const std::int64_t start =
        std::max<std::int64_t>(0, end - static_cast<std::int64_t>(block.size()));
    file.seekg(start);
    if (!file.read(block.data(), end - start)) return -1;
    for (std::int64_t i = end; i > start; --i) {
      if (block[static_cast<std::size_t>(i - start - 1)] == '\n') return i;
    }
    end = start;
  }
  return 0;
}

// Removes half a line at the file's end. False if that cannot be done; the next line tries again.
bool cutHalfLine(const std::filesystem::path& path) {
  std::error_code error;
  const auto size = static_cast<std::int64_t>(std::filesystem::file_size(path, error));
  if (error) return error == std::errc::no_such_file_or_directory;
  const std::int64_t whole = lengthOfWholeLines(path, size);
  if (whole < 0) return false;
  if (whole != size) {
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(whole), error);
  }
  return !error;
}

}  // namespace

TextFile::TextFile(std::string path)
    : path_(checkedPath(std::move(path))),
      creationTime_(platform::ports().clock->now() / platform::kClockUnitsPerMillisecond),
      stream_(std::make_unique<std::ofstream>()),
      lastLook_(creationTime_ * platform::kClockUnitsPerMillisecond) {
  const MutexLock lock(fileMutex_);
  open();
}

TextFile::~TextFile() {
  const MutexLock lock(fileMutex_);
  stream_->close();
}

void TextFile::writeLine(std::string text) {
  const MutexLock lock(fileMutex_);
  const bool isHeading = !heading_.has_value();
  if (isHeading) heading_ = text;
  if (!makeWritable()) return;
  // Written in one piece, so that another process's line cannot split it.
  text.push_back('\n');
  const auto writeWithHeading = [&]()
                                    ZELTA_REQUIRES(fileMutex_) { write(*heading_ + '\n' + text); };
  if (empty_ && !isHeading) return writeWithHeading();
  write(text);
  if (!isHeading && stream_->is_open() && endsBefore(heading_->size() + text.size())) {
    // Somebody has emptied the file: the line has become its first.
    std::error_code ignored;
    std::filesystem::resize_file(platform::nativePath(path_), 0, ignored);
    writeWithHeading();
  }
}

void TextFile::write(const std::string& text) {
  stream_->write(text.data(), static_cast<std::streamsize>(text.size()));
  stream_->flush();
  if (stream_->good()) {
    empty_ = false;
  } else {
    stream_->close();  // opened anew for the next line
    cutHalfLine(platform::nativePath(path_));
  }
}

// Compares the position after the last write, which only an ordinary file has.
bool TextFile::endsBefore(std::size_t size) {
  const std::streamoff end = stream_->tellp();
  return end > 0 && static_cast<std::uint64_t>(end) < size;
}

bool TextFile::makeWritable() {
  if (stream_->is_open() && wasRemoved()) stream_->close();
  return stream_->is_open() || open();
}

bool TextFile::open() {
  const std::filesystem::path path = platform::nativePath(path_);
  // Made with a log file's access rights, which a stream would not set: at the debug level it may
  // contain a PIN.
  const platform::NewFile found = platform::makeNewFile(path, platform::Readers::kOwnerAndGroup);
  if (found == platform::NewFile::kFailed) return false;
  if (!made_) {
    made_ = std::ofstream(path, std::ios::out | std::ios::trunc).is_open();
    if (!made_) return false;
  } else if (!cutHalfLine(path)) {
    return false;
  }
  // Without a buffer, a failed write leaves nothing to be written later, after the half that did
  // reach the disk. Appending keeps lines whole even if another process writes to the same file.
  stream_ = std::make_unique<std::ofstream>();
  stream_->rdbuf()->pubsetbuf(nullptr, 0);
  stream_->open(path, std::ios::out | std::ios::app);
  std::error_code error;
  empty_ = std::filesystem::file_size(path, error) == 0;
  return stream_->is_open();
}

bool TextFile::wasRemoved() {
  const std::int64_t now = platform::ports().clock->now();
  if (now >= lastLook_ && now - lastLook_ < kLookPeriod) return false;
  lastLook_ = now;
  std::error_code error;
  return !std::filesystem::exists(platform::nativePath(path_), error) && !error;
}

}  // namespace zelta
