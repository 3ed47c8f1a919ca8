#include <cstdio>
#include <filesystem>
#include <fstream>

#include "platform/files/utf.h"
#include "tests/support/own_registry.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace {

std::string section(const std::string& sign, const std::u16string& key) {
  return "[" + sign + "HKEY_LOCAL_MACHINE\\" + platform::utf8FromUtf16(key) + "]\n";
}

std::string quoted(const std::u16string& name) {
  return "\"" + platform::utf8FromUtf16(name) + "\"";
}

}  // namespace

// Each change appends to the file's text and renames the whole over the file.
class OwnRegistry::System {
 public:
  void append(const std::string& lines) {
    text_ += lines;
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

void OwnRegistry::createKey(const std::u16string& key) { system_->append(section("", key)); }

void OwnRegistry::setValue(const std::u16string& key, const std::u16string& name,
                           std::uint32_t type, const std::vector<std::uint8_t>& data) {
  char number[16];
  (void)std::snprintf(number, sizeof(number), "hex(%x):", type);
  std::string line = quoted(name) + "=" + number;
  for (const std::uint8_t byte : data) {
    (void)std::snprintf(number, sizeof(number), "%02x,", byte);
    line += number;
  }
  system_->append(section("", key) + line + "\n");
}

void OwnRegistry::deleteKey(const std::u16string& key) { system_->append(section("-", key)); }

void OwnRegistry::deleteValue(const std::u16string& key, const std::u16string& name) {
  system_->append(section("", key) + quoted(name) + "=-\n");
}

}  // namespace zelta::test
