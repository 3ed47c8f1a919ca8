#include "tests/support/own_registry.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "platform/files/utf.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

// Each change appends to the file's text and renames the whole over the file.
class OwnRegistry::System {
 public:
  void set(const std::u16string& key, const std::u16string& name, const std::string& data) {
    text_ += "[HKEY_LOCAL_MACHINE\\" + platform::utf8FromUtf16(key) + "]\n\"" +
             platform::utf8FromUtf16(name) + "\"=" + data + "\n";
    std::ofstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(folder_.file("new"));
    file << text_;
    file.close();
    std::filesystem::rename(folder_.file("new"), folder_.file("registry.reg"));
  }

 private:
  const TempFolder folder_;
  const ScopedVariable variable_{"ZELTA_REGISTRY", folder_.file("registry.reg")};
  std::string text_ = "Windows Registry Editor Version 5.00\n\n";
};

OwnRegistry::OwnRegistry() : system_(std::make_unique<System>()) {}

OwnRegistry::~OwnRegistry() = default;

void OwnRegistry::setDword(const std::u16string& key, const std::u16string& name,
                           std::uint32_t value) {
  char number[16];
  std::snprintf(number, sizeof(number), "dword:%08x", value);
  system_->set(key, name, number);
}

void OwnRegistry::setText(const std::u16string& key, const std::u16string& name,
                          const std::u16string& text) {
  system_->set(key, name, "\"" + platform::utf8FromUtf16(text) + "\"");
}

}  // namespace zelta::test
