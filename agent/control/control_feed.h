// The output for one client of the control socket until the client leaves.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace zelta::agent {

class ControlFeed {
 public:
  virtual ~ControlFeed() = default;  // `wake` is not called afterwards

  // What has come since the last call; empty if nothing has. One thread at a time.
  virtual std::string take() = 0;
};

// What the line asks to be told. `wake` is called, on any thread, when there is something to take;
// it must not block.
using OpenFeed = std::function<std::unique_ptr<ControlFeed>(const std::string& line,
                                                            std::function<void()> wake)>;

}  // namespace zelta::agent
