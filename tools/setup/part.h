// One thing that setup puts on the machine, such as the log folder or the device.
//
// Owned by an Installer, which calls it from one thread. The methods throw std::exception, with a
// text for the user, if they fail; an `add` that fails leaves nothing behind.
#pragma once

#include <string>

namespace zelta::setup {

class Part {
 public:
  struct Change {
    bool made = false;  // false: everything was as wanted before
    std::string text;   // what it was made of, or found as
    bool needsRestart = false;
  };
  struct Look {
    enum class State { kAbsent, kFaulty, kPresent };
    State state = State::kAbsent;
    std::string text;
  };

  virtual ~Part() = default;
  // Without changing anything, and without an administrator's rights.
  virtual Look look() = 0;
  virtual Change add() = 0;
  // Takes back what the last `add` made; called only if that made something.
  virtual Change undo() { return remove(); }
  // Everything, whoever made it.
  virtual Change remove() = 0;
};

}  // namespace zelta::setup
