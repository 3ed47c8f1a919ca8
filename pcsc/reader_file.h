// A reader of the driver as its channel uses it: its name, its open file, and a way to get another
// file after the device went down.
//
// Ownership: the channel's. Threads: any; `renew` is for one thread at a time.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "host/driver_host.h"
#include "platform/sync/sync.h"

namespace zelta::pcsc {

class ReaderFile {
 public:
  // A file of the device brought up anew; null if the device is down for good. Throws HostError
  // if it does not come up, and std::bad_alloc.
  using Renew = std::function<std::shared_ptr<host::File>()>;

  // `file` is not null. `renew` is called with no lock held.
  ReaderFile(std::string name, std::shared_ptr<host::File> file, Renew renew)
      : name_(std::move(name)), renew_(std::move(renew)), file_(std::move(file)) {}

  const std::string& name() const { return name_; }

  // Never null; fails every request while the device is down.
  std::shared_ptr<host::File> get() const ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    return file_;
  }

  // False, and the file stays, if the device is down for good. Throws as `Renew` does.
  bool renew() ZELTA_EXCLUDES(mutex_) {
    std::shared_ptr<host::File> file = renew_();
    if (!file) return false;
    const platform::MutexLock lock(mutex_);
    file_.swap(file);
    return true;
  }

 private:
  const std::string name_;
  const Renew renew_;
  mutable platform::Mutex mutex_;
  std::shared_ptr<host::File> file_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::pcsc
