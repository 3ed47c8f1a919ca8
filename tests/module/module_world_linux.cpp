#include "platform/pipe/pipe_path.h"
#include "tests/module/module_world.h"
#include "tests/support/logging_ports.h"
#include "tests/support/own_registry.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace fs = std::filesystem;

struct ModuleWorld::System {
  TempFolder folder;
  ScopedVariable programData{"ZELTA_PROGRAM_DATA", folder.path().string()};
  ScopedVariable pipeRoot{"ZELTA_PIPE_ROOT", folder.file("p")};
  OwnRegistry registry;
};

ModuleWorld::ModuleWorld() : system_(std::make_unique<System>()) {
  fs::create_directories(logFolder());
  setPolicy(kEveryLevel);
}

ModuleWorld::~ModuleWorld() = default;

fs::path ModuleWorld::logFolder() const {
  return system_->folder.path() / "Vornhalt" / "ZeltaAgent" / "logs";
}

void ModuleWorld::removeFolder() const {
  std::error_code ignored;
  fs::remove_all(system_->folder.path(), ignored);
}

bool ModuleWorld::pipeExists(const std::string& pipeName) const {
  return fs::exists(platform::pipeSocketPath(pipeName));
}

void ModuleWorld::setPolicy(std::uint32_t eventFilterMode) {
  system_->registry.setDword(kPolicy, kFilterMode, eventFilterMode);
}

void ModuleWorld::setRotationTime(const std::string& text) {
  system_->registry.setText(kAgentKey, kRotationTime, {text.begin(), text.end()});
}

}  // namespace zelta::test
