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
    bool made = false;  // false: nothing had to be changed
    std::string text;   // what it was made of, or found as
    bool needsRestart = false;
  };
  struct Look {
    enum class State { kAbsent, kFaulty, kPresent };
    State state = State::kAbsent;
    std::string text;
  };

  virtual ~Part() = default;
  // Changes nothing and needs no administrator rights.
  virtual Look look() = 0;
  virtual Change add() = 0;
  // Undoes the last `add`; called only if that made something.
  virtual Change undo() { return remove(); }
  // Removes everything, whoever made it.
  virtual Change remove() = 0;
};

}  // namespace zelta::setup
