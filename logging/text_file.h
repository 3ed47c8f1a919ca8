// One log file: whole lines, on disk as soon as they are written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "platform/sync/sync.h"

namespace zelta {

// Any thread may write; the file's own mutex keeps lines whole.
//
// The caller does not learn that a file cannot be opened or written. The line is lost, and the next
// one tries again:
// - A file that could not be made (no folder, no permission) is made then.
// - Half a line that a full disk has left at the file's end is cut off first.
// - A file that was removed meanwhile is made anew. A write looks for it, at most once a second.
// The first line ever written is the file's heading: a file that is made later or anew, or was
// emptied meanwhile, begins with it, too.
class TextFile {
 public:
  // Takes the creation time and opens the file, which replaces an older one of that name. `path`
  // is UTF-8 with either separator. Throws `std::invalid_argument` ("File path is empty") for an
  // empty path; no other failure of the file is reported.
  explicit TextFile(std::string path);
  virtual ~TextFile();
  TextFile(const TextFile&) = delete;
  TextFile& operator=(const TextFile&) = delete;

  // Writes the text and a line end, then flushes.
  void writeLine(std::string text);

  // Milliseconds since 1970, when this object was made.
  std::int64_t creationTime() const { return creationTime_; }

 private:
  bool makeWritable() ZELTA_REQUIRES(fileMutex_);
  bool open() ZELTA_REQUIRES(fileMutex_);
  void write(const std::string& text) ZELTA_REQUIRES(fileMutex_);
  bool endsBefore(std::size_t size) ZELTA_REQUIRES(fileMutex_);
  bool wasRemoved() ZELTA_REQUIRES(fileMutex_);

  const std::string path_;
  const std::int64_t creationTime_;
  platform::Mutex fileMutex_;
  std::unique_ptr<std::ofstream> stream_ ZELTA_GUARDED_BY(fileMutex_);
  std::optional<std::string> heading_ ZELTA_GUARDED_BY(fileMutex_);
  bool made_ ZELTA_GUARDED_BY(fileMutex_) = false;      // opened once; older content is gone
  bool empty_ ZELTA_GUARDED_BY(fileMutex_) = true;      // the heading is still to be written
  std::int64_t lastLook_ ZELTA_GUARDED_BY(fileMutex_);  // wall clock units
};

}  // namespace zelta
