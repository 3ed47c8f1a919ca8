#include "pcsc/device.h"

#include <utility>

#include "pcsc/reader_names.h"

namespace zelta::pcsc {

using platform::MutexLock;

Device::Device(std::unique_ptr<host::DriverHost> host) : host_(std::move(host)) {
  host_->bringUp();
}

std::shared_ptr<host::File> Device::open(std::uint32_t readerIndex, Generation* generation) {
  const MutexLock lock(mutex_);
  *generation = generation_;
  return host_->open(interfaceName(readerIndex));
}

std::shared_ptr<host::File> Device::renew(std::uint32_t readerIndex, Generation* generation) {
  const MutexLock lock(mutex_);
  if (shutDown_) return nullptr;
  if (*generation == generation_) {
    host_->tearDown();
    host_->bringUp();
    ++generation_;
  }
  *generation = generation_;
  std::shared_ptr<host::File> file = host_->open(interfaceName(readerIndex));
  if (!file) throw host::HostError("the driver has no reader " + readerName(readerIndex));
  return file;
}

void Device::shutDown() noexcept {
  const MutexLock lock(mutex_);
  shutDown_ = true;
  host_->tearDown();
}

}  // namespace zelta::pcsc
