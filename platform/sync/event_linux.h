// Lets the Linux ports use each other's events.
#pragma once

#include "platform/files/scoped_fd_linux.h"
#include "platform/sync/event.h"

namespace zelta::platform {

// A descriptor of the event's own kind that stays valid when the event is closed; none if the
// handle is no event or no descriptor is left.
ScopedFd duplicateEvent(EventHandle event);

// Signals an event through its descriptor.
bool signalEvent(int descriptor);

}  // namespace zelta::platform
