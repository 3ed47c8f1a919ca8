#include "platform/process/error.h"
#include "tests/platform/registry/registry_conformance.h"
#include "tests/support/machine_registry_win32.h"
#include "tests/support/system.h"

namespace zelta::test {

namespace {

namespace error = platform::error;

class SystemSubject final : public RegistrySubject {
 public:
  platform::RegistryApi& api() override { return platform::systemRegistry(); }
  void createKey(const std::u16string& key) override { registry_.createKey(key); }
  void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                const Bytes& data) override {
    registry_.setValue(key, name, type, data);
  }
  void deleteValue(const std::u16string& key, const std::u16string& name) override {
    registry_.deleteValue(key, name);
  }
  void deleteKey(const std::u16string& key) override { registry_.deleteKey(key); }

  // As many bytes as there are are copied.
  std::uint32_t readOfShortNumber() const override { return error::kSuccess; }
  std::uint32_t readOfLongNumber() const override { return error::kMoreData; }
  bool failedReadLeavesTheNumber() const override { return false; }
  bool remembersChangesSinceOpening() const override { return false; }
  // Wine forgets a change that comes before the next notification is asked for, and takes the
  // same value for no change.
  bool remembersChangesBetween() const override { return !underWine(); }
  bool sameValueIsAChange() const override { return !underWine(); }
  bool closingSignals() const override { return true; }
  bool keyOutlivesDeletion() const override { return false; }

 private:
  MachineRegistry registry_;
};

}  // namespace

std::unique_ptr<RegistrySubject> makeSystemRegistrySubject() {
  return std::make_unique<SystemSubject>();
}

}  // namespace zelta::test
