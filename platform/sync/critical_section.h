// A recursive lock with a try operation, in the terms of the system's critical section.
#pragma once

#include <memory>

#include "platform/sync/sync.h"

namespace zelta::platform {

class ZELTA_CAPABILITY("critical section") CriticalSection {
 public:
  CriticalSection();
  ~CriticalSection();
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  // Each may be nested by the thread that holds it; every success is paired with a leave.
  void enter() ZELTA_ACQUIRE();
  bool tryEnter() ZELTA_TRY_ACQUIRE(true);
  void leave() ZELTA_RELEASE();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zelta::platform
