#include "tests/support/machine_registry_win32.h"
#include "tests/support/own_registry.h"

namespace zelta::test {

class OwnRegistry::System : public MachineRegistry {};

OwnRegistry::OwnRegistry() : system_(std::make_unique<System>()) {}

OwnRegistry::~OwnRegistry() = default;

void OwnRegistry::setDword(const std::u16string& key, const std::u16string& name,
                           std::uint32_t value) {
  system_->setDword(key, name, value);
}

void OwnRegistry::setText(const std::u16string& key, const std::u16string& name,
                          const std::u16string& text) {
  system_->setText(key, name, text);
}

}  // namespace zelta::test
