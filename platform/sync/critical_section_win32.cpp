#include <windows.h>

#include "platform/sync/critical_section.h"

namespace zelta::platform {

struct CriticalSection::State {
  CRITICAL_SECTION section;
};

CriticalSection::CriticalSection() : state_(std::make_unique<State>()) {
  InitializeCriticalSection(&state_->section);
}

CriticalSection::~CriticalSection() { DeleteCriticalSection(&state_->section); }

void CriticalSection::enter() { EnterCriticalSection(&state_->section); }

bool CriticalSection::tryEnter() { return TryEnterCriticalSection(&state_->section) != FALSE; }

void CriticalSection::leave() { LeaveCriticalSection(&state_->section); }

}  // namespace zelta::platform
