#include "tests/doubles/registry/fake_registry.h"
#include "tests/platform/registry/registry_conformance.h"

namespace zelta::test {

namespace {

class FakeSubject final : public RegistrySubject {
 public:
  platform::RegistryApi& api() override { return registry_; }
  void createKey(const std::u16string& key) override { registry_.createKey(key); }
  void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                const Bytes& data) override {
    registry_.setValue(key, name, type, data);
  }
  void deleteValue(const std::u16string& key, const std::u16string& name) override {
    registry_.deleteValue(key, name);
  }
  void deleteKey(const std::u16string& key) override { registry_.deleteKey(key); }

 private:
  FakeRegistry registry_;
};

}  // namespace

std::unique_ptr<RegistrySubject> makeFakeRegistrySubject() {
  return std::make_unique<FakeSubject>();
}

}  // namespace zelta::test
