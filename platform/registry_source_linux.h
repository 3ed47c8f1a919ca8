// The registry's file as bytes, and whether it is still the one that was read.
#pragma once

#include <cstdint>
#include <string>

namespace zelta::platform {

// What tells one state of a file from another without reading it. A file that cannot be read is
// as one that is not there.
struct FileSignature {
  bool exists = false;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;     // bytes
  std::int64_t changed = 0;  // nanoseconds since 1970, of content or attributes

  friend bool operator==(const FileSignature& a, const FileSignature& b) {
    return a.exists == b.exists && a.device == b.device && a.inode == b.inode && a.size == b.size &&
           a.changed == b.changed;
  }
  friend bool operator!=(const FileSignature& a, const FileSignature& b) { return !(a == b); }
};

struct FileRead {
  std::string bytes;
  FileSignature signature;
  // The signature stands for these bytes for good. Not so while the file is young: a further
  // change within the clock's step leaves the signature as it is.
  bool settled = false;
  // Why there is nothing, in the system's words; empty where the file was read or is not there.
  std::string problem;
  // The system lacked the means to read (descriptors, memory, the disk's health): what the file
  // holds is not known.
  bool failed = false;
};

FileSignature signatureOf(const std::string& path);

// Reads the whole file as it is at the moment; one that changes meanwhile is read anew, a few
// times. Regular files up to 64 MiB. `now` is the time of the call in 100-nanosecond units since
// 1970.
FileRead readWholeFile(const std::string& path, std::int64_t now);

}  // namespace zelta::platform
