// A reader's interface to the device that owns it. The device outlives its readers. Any thread.
#pragma once

#include "framework/wdf.h"
#include "platform/sync/critical_section.h"

namespace zelta {

class ReaderDevice {
 public:
  // The device lock: recursive, held for every completion of a request, taken through `TracedLock`.
  virtual platform::CriticalSection& deviceLock() = 0;
  // For the device's cancel callback; a new reference.
  [[nodiscard]] virtual framework::HRESULT queryInterface(framework::REFIID iid, void** out) = 0;

 protected:
  ~ReaderDevice() = default;
};

}  // namespace zelta
