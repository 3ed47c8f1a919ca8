// The operating system as the driver sees it: one set of ports for the process.
#pragma once

#include "platform/clock.h"
#include "platform/event.h"
#include "platform/folders.h"
#include "platform/pipe.h"
#include "platform/registry.h"
#include "platform/winsock.h"

namespace zelta::platform {

// Non-owning; every port lives as long as the process.
struct Ports {
  PipeApi* pipes;
  EventApi* events;
  RegistryApi* registry;
  FolderApi* folders;
  WallClock* clock;
  WinsockApi* winsock;
};

// The system's ports, or those that `replacePorts` has put in their place.
const Ports& ports();

// For programs that run the driver's parts on ports of their own. Returns what was set before.
// Must not be called while a thread uses a port.
Ports replacePorts(const Ports& replacement);

}  // namespace zelta::platform
