#include "platform/sync/critical_section.h"

#include <mutex>

namespace zelta::platform {

struct CriticalSection::State {
  std::recursive_mutex mutex;
};

CriticalSection::CriticalSection() : state_(std::make_unique<State>()) {}
CriticalSection::~CriticalSection() = default;

// The analysis follows the class's own capability, not the mutex underneath.
void CriticalSection::enter() ZELTA_NO_THREAD_SAFETY_ANALYSIS { state_->mutex.lock(); }

bool CriticalSection::tryEnter() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
  return state_->mutex.try_lock();
}

void CriticalSection::leave() ZELTA_NO_THREAD_SAFETY_ANALYSIS { state_->mutex.unlock(); }

}  // namespace zelta::platform
