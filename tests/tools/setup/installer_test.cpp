#include "tools/setup/installer.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zelta::setup {
namespace {

using State = Part::Look::State;

// Records its calls in a list that all parts share, and succeeds or fails as told.
class FakePart final : public Part {
 public:
  struct Behaviour {
    std::string failing;  // the call that throws; empty: none
    bool isThere = false;
    bool needsRestart = false;
    Look look{State::kPresent, "fine"};
  };

  FakePart(std::string name, Behaviour behaviour, std::vector<std::string>& calls)
      : name_(std::move(name)), behaviour_(std::move(behaviour)), calls_(calls) {}

  Look look() override {
    failIf("look");
    return behaviour_.look;
  }
  Change add() override { return call("add", !behaviour_.isThere); }
  Change undo() override { return call("undo", true); }
  Change remove() override { return call("remove", behaviour_.isThere); }

 private:
  void failIf(const std::string& call) const {
    if (behaviour_.failing == call) throw std::runtime_error("no room");
  }
  Change call(const std::string& call, bool made) {
    calls_.push_back(call + " " + name_);
    failIf(call);
    return {made, "it", behaviour_.needsRestart};
  }

  const std::string name_;
  const Behaviour behaviour_;
  std::vector<std::string>& calls_;
};

using Behaviour = FakePart::Behaviour;
using Calls = std::vector<std::string>;

// Two ordinary parts around one with data; the last one is optional.
class InstallerTest : public ::testing::Test {
 protected:
  Installer installerOf(Behaviour data, Behaviour device, Behaviour service) {
    std::vector<Step> steps;
    const auto add = [&](const char* name, Behaviour& behaviour, bool isOptional, bool isData) {
      steps.push_back({name, std::make_unique<FakePart>(name, std::move(behaviour), calls_),
                       isOptional, isData});
    };
    add("data", data, false, true);
    add("device", device, false, false);
    add("service", service, true, false);
    return {std::move(steps), output_};
  }
  std::string output() const { return output_.str(); }

  static Behaviour failing(const char* call) { return {call, true, false, {State::kPresent, ""}}; }
  static Behaviour there() { return {"", true, false, {State::kPresent, "fine"}}; }
  static Behaviour looking(State state) { return {"", false, false, {state, "so"}}; }

  Calls calls_;
  std::ostringstream output_;
};

TEST_F(InstallerTest, Install_AddsInOrderAndSaysWhatItMade) {
  EXPECT_EQ(installerOf({}, there(), {}).install(true), Outcome::kDone);
  EXPECT_EQ(calls_, (Calls{"add data", "add device", "add service"}));
  EXPECT_EQ(output(),
            "data:           installed: it\n"
            "device:         there already: it\n"
            "service:        installed: it\n");
}

TEST_F(InstallerTest, Install_LeavesOutWhatIsOptional) {
  EXPECT_EQ(installerOf({}, {}, failing("look")).install(false), Outcome::kDone);
  EXPECT_EQ(calls_, (Calls{"add data", "add device"}));
}

TEST_F(InstallerTest, FailingStep_UndoesTheStepsBeforeItBackwards) {
  EXPECT_EQ(installerOf({}, {}, failing("add")).install(true), Outcome::kFailed);
  EXPECT_EQ(calls_, (Calls{"add data", "add device", "add service", "undo device", "undo data"}));
  EXPECT_EQ(output(),
            "data:           installed: it\n"
            "device:         installed: it\n"
            "service:        failed: no room\n"
            "device:         undone: it\n"
            "data:           undone: it\n");
}

TEST_F(InstallerTest, FailingStep_LeavesWhatWasThereBefore) {
  EXPECT_EQ(installerOf(there(), {}, failing("add")).install(true), Outcome::kFailed);
  EXPECT_EQ(calls_, (Calls{"add data", "add device", "add service", "undo device"}));
}

TEST_F(InstallerTest, FailingUndo_IsSaidAndTheOthersAreUndone) {
  Behaviour device;
  device.failing = "undo";
  EXPECT_EQ(installerOf({}, device, failing("add")).install(true), Outcome::kFailed);
  EXPECT_EQ(calls_.back(), "undo data");
  EXPECT_NE(output().find("device:         failed: no room\n"), std::string::npos);
}

TEST_F(InstallerTest, RestartThatAStepNeeds_IsSaid) {
  Behaviour device;
  device.needsRestart = true;
  EXPECT_EQ(installerOf({}, device, {}).install(false), Outcome::kRestart);
  EXPECT_NE(output().find("Windows has to be restarted"), std::string::npos);
}

TEST_F(InstallerTest, InstalledPartThatDoesNotWork_IsFaulty) {
  EXPECT_EQ(installerOf({}, looking(State::kFaulty), {}).install(false), Outcome::kFaulty);
  EXPECT_NE(output().find("device:         so\n"), std::string::npos);
}

TEST_F(InstallerTest, Remove_GoesBackwardsAndKeepsData) {
  EXPECT_EQ(installerOf(there(), there(), {}).remove(false), Outcome::kDone);
  EXPECT_EQ(calls_, (Calls{"remove service", "remove device"}));
  EXPECT_EQ(output(),
            "service:        not there: it\n"
            "device:         removed: it\n");
}

TEST_F(InstallerTest, RemoveWithData_RemovesEverything) {
  EXPECT_EQ(installerOf(there(), there(), there()).remove(true), Outcome::kDone);
  EXPECT_EQ(calls_, (Calls{"remove service", "remove device", "remove data"}));
}

TEST_F(InstallerTest, FailingRemoval_GoesOnWithTheRest) {
  EXPECT_EQ(installerOf(there(), there(), failing("remove")).remove(true), Outcome::kFailed);
  EXPECT_EQ(calls_, (Calls{"remove service", "remove device", "remove data"}));
}

TEST_F(InstallerTest, Status_LooksAtEverythingAndChangesNothing) {
  EXPECT_EQ(installerOf({}, {}, looking(State::kAbsent)).status(), Outcome::kDone);
  EXPECT_EQ(calls_, Calls{});
  EXPECT_EQ(output(),
            "data:           fine\n"
            "device:         fine\n"
            "service:        so\n");
}

struct StatusCase {
  const char* name;
  State data;
  State device;
  Outcome outcome;
};

class InstallerStatus : public InstallerTest, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(InstallerStatus, IsTheWorstOfTheParts) {
  Installer installer = installerOf(looking(GetParam().data), looking(GetParam().device), {});
  EXPECT_EQ(installer.status(), GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, InstallerStatus,
    ::testing::Values(StatusCase{"AllThere", State::kPresent, State::kPresent, Outcome::kDone},
                      StatusCase{"OneMissing", State::kPresent, State::kAbsent, Outcome::kFailed},
                      StatusCase{"OneFaulty", State::kFaulty, State::kPresent, Outcome::kFaulty},
                      StatusCase{"MissingAndFaulty", State::kFaulty, State::kAbsent,
                                 Outcome::kFailed}),
    [](const auto& tested) { return tested.param.name; });

TEST_F(InstallerTest, PartThatCannotBeLookedAt_IsFaultyAndSaysWhy) {
  EXPECT_EQ(installerOf({}, failing("look"), {}).status(), Outcome::kFaulty);
  EXPECT_NE(output().find("device:         no room\n"), std::string::npos);
}

}  // namespace
}  // namespace zelta::setup
