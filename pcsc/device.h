// The driver's device, which the open channels share: brought up at the beginning, and anew when
// one of its readers has stopped serving.
//
// Ownership: owns the driver host. Threads: any. Bringing the device up or down waits until the
// driver has ended its work, and every other call waits for that.
#pragma once

#include <cstdint>
#include <memory>

#include "host/driver_host.h"
#include "platform/sync/sync.h"

namespace zelta::pcsc {

class Device {
 public:
  // Brings it up. Throws HostError.
  explicit Device(std::unique_ptr<host::DriverHost> host);
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // Identifies the bring-up that a file belongs to.
  using Generation = unsigned;

  // Null if the driver has no such reader. `generation` is set in any case.
  std::shared_ptr<host::File> open(std::uint32_t readerIndex, Generation* generation)
      ZELTA_EXCLUDES(mutex_);
  // Takes the device down and brings it up first, unless that has been done since `*generation`.
  // Null also after `shutDown`. Throws HostError if the device does not come up;
  // it is down then.
  std::shared_ptr<host::File> renew(std::uint32_t readerIndex, Generation* generation)
      ZELTA_EXCLUDES(mutex_);
  // Takes the device down for good.
  void shutDown() noexcept ZELTA_EXCLUDES(mutex_);

 private:
  platform::Mutex mutex_;
  const std::unique_ptr<host::DriverHost> host_;  // brought up and down with the mutex held
  Generation generation_ ZELTA_GUARDED_BY(mutex_) = 0;
  bool shutDown_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta::pcsc
