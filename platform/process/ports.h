// The operating system as the driver sees it: one set of ports for the process.
#pragma once

#include "platform/files/folders.h"
#include "platform/pipe/pipe.h"
#include "platform/process/winsock.h"
#include "platform/registry/registry.h"
#include "platform/sync/clock.h"
#include "platform/sync/event.h"

namespace zelta::platform {

// Non-owning; every port lives until the process ends.
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

// For programs that run parts of the driver on their own ports. Returns the previous ports.
// Must not be called while a thread uses a port.
Ports replacePorts(const Ports& replacement);

}  // namespace zelta::platform
