#include <windows.h>

#include "platform/sync/clock.h"

namespace zelta::platform {

std::uint32_t tickCount() { return GetTickCount(); }

}  // namespace zelta::platform
