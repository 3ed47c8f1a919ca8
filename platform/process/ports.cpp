#include "platform/process/ports.h"

#include <type_traits>

namespace zelta::platform {

namespace {

static_assert(std::is_trivially_destructible_v<Ports>, "threads may use the ports at exit");

Ports& current() {
  static Ports set{&systemPipes(),   &systemEvents(),    &systemRegistry(),
                   &systemFolders(), &systemWallClock(), &systemWinsock()};
  return set;
}

}  // namespace

const Ports& ports() { return current(); }

Ports replacePorts(const Ports& replacement) {
  const Ports before = current();
  current() = replacement;
  return before;
}

}  // namespace zelta::platform
