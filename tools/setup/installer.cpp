#include "tools/setup/installer.h"

#include <exception>
#include <iomanip>
#include <ostream>
#include <utility>

namespace zelta::setup {

namespace {

constexpr int kNameWidth = 16;

Part::Look lookAt(const Step& step) {
  try {
    return step.part->look();
  } catch (const std::exception& error) {
    return {Part::Look::State::kFaulty, error.what()};
  }
}

}  // namespace

Installer::Installer(std::vector<Step> steps, std::ostream& output)
    : steps_(std::move(steps)), output_(output) {}

Outcome Installer::install(bool withOptional) {
  std::vector<Step*> made;
  for (Step& step : steps_) {
    if (step.isOptional && !withOptional) continue;
    if (!run(step, &Part::add, "installed", "there already")) {
      undo(made);
      return Outcome::kFailed;
    }
    if (last_.made) made.push_back(&step);
  }
  const Outcome outcome = finish(false);
  if (outcome == Outcome::kRestart) return outcome;
  for (const Step& step : steps_) {
    if (step.isOptional && !withOptional) continue;
    const Part::Look look = lookAt(step);
    if (look.state != Part::Look::State::kFaulty) continue;
    say(step.name, look.text);
    return Outcome::kFaulty;
  }
  return outcome;
}

void Installer::undo(const std::vector<Step*>& made) {
  for (auto step = made.rbegin(); step != made.rend(); ++step) {
    // The failure has been reported; the other parts are undone nevertheless.
    static_cast<void>(run(**step, &Part::undo, "undone", "gone already"));
  }
}

Outcome Installer::remove(bool withData) {
  bool failed = false;
  for (auto step = steps_.rbegin(); step != steps_.rend(); ++step) {
    if (step->isData && !withData) continue;
    if (!run(*step, &Part::remove, "removed", "not there")) failed = true;
  }
  return finish(failed);
}

Outcome Installer::status() {
  bool isMissing = false;
  bool isFaulty = false;
  for (const Step& step : steps_) {
    const Part::Look look = lookAt(step);
    say(step.name, look.text);
    if (look.state == Part::Look::State::kAbsent && !step.isOptional) isMissing = true;
    if (look.state == Part::Look::State::kFaulty) isFaulty = true;
  }
  if (isMissing) return Outcome::kFailed;
  return isFaulty ? Outcome::kFaulty : Outcome::kDone;
}

bool Installer::run(Step& step, Action action, const char* done, const char* notDone) {
  last_ = {};
  try {
    last_ = (step.part.get()->*action)();
  } catch (const std::exception& error) {
    say(step.name, std::string("failed: ") + error.what());
    return false;
  }
  needsRestart_ = needsRestart_ || last_.needsRestart;
  say(step.name,
      (last_.made ? done : notDone) + (last_.text.empty() ? std::string() : ": " + last_.text));
  return true;
}

Outcome Installer::finish(bool failed) const {
  if (needsRestart_) output_ << "Windows has to be restarted before this takes effect.\n";
  if (failed) return Outcome::kFailed;
  return needsRestart_ ? Outcome::kRestart : Outcome::kDone;
}

void Installer::say(const std::string& name, const std::string& text) {
  output_ << std::left << std::setw(kNameWidth) << name + ":" << text << "\n" << std::flush;
}

}  // namespace zelta::setup
