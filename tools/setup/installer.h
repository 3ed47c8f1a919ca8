// Installs parts on the machine, removes them, and reports their state.
//
// One thread. Writes a line of output for each step.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "tools/setup/part.h"

namespace zelta::setup {

// Exit codes of the program.
enum class Outcome {
  kDone = 0,
  kFailed = 1,   // everything was undone; of `status`: a part is missing
  kUsage = 2,    // the command line is wrong
  kRestart = 3,  // done; Windows has to be restarted
  kRefused = 4,  // no administrator's rights
  kFaulty = 5,   // all parts are there, but one does not work
};

// A row of the table of setup's steps, in the order of installation. Removal goes backwards.
struct Step {
  std::string name;
  std::unique_ptr<Part> part;
  bool isOptional = false;  // installed only if asked for
  bool isData = false;      // stays unless the user asks for its removal, too
};

class Installer {
 public:
  Installer(std::vector<Step> steps, std::ostream& output);

  // If a step fails, the steps before it are undone, the last one first.
  [[nodiscard]] Outcome install(bool withOptional);
  // Continues after a failure, so that as little as possible stays.
  [[nodiscard]] Outcome remove(bool withData);
  [[nodiscard]] Outcome status();

 private:
  using Action = Part::Change (Part::*)();

  // False if it failed.
  [[nodiscard]] bool run(Step& step, Action action, const char* done, const char* notDone);
  void undo(const std::vector<Step*>& made);
  [[nodiscard]] Outcome finish(bool failed) const;
  void say(const std::string& name, const std::string& text);

  std::vector<Step> steps_;
  std::ostream& output_;
  Part::Change last_;  // of the last `run`
  bool needsRestart_ = false;
};

}  // namespace zelta::setup
