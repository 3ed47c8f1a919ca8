#include <fstream>

#include "platform/pipe/pipe_path.h"
#include "tests/module/module_world.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace fs = std::filesystem;

struct ModuleWorld::System {
  TempFolder folder;
  ScopedVariable programData{"ZELTA_PROGRAM_DATA", folder.path().string()};
  ScopedVariable pipeRoot{"ZELTA_PIPE_ROOT", folder.file("p")};
  ScopedVariable registry{"ZELTA_REGISTRY", folder.file("registry.reg")};
  std::string policy;    // the key with its value
  std::string rotation;  // the same; empty: there is no such key

  // Beside its place and renamed, so that nobody finds half a file.
  void writeRegistry() const {
    std::ofstream(folder.file("registry.new")) << "Windows Registry Editor Version 5.00\n\n"
                                               << policy << rotation;
    fs::rename(folder.file("registry.new"), folder.file("registry.reg"));
  }
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
  system_->policy =
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin]\n"
      "\"zelta.event_filter_mode\"=dword:" +
      std::to_string(eventFilterMode) + "\n\n";
  system_->writeRegistry();
}

void ModuleWorld::setRotationTime(const std::string& text) {
  system_->rotation =
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vornhalt\\ZeltaAgent]\n"
      "\"ZeltaLogRotationTime\"=\"" +
      text + "\"\n\n";
  system_->writeRegistry();
}

}  // namespace zelta::test
