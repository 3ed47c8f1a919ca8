#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "platform/files/utf.h"
#include "platform/registry/registry_linux.h"
#include "tests/platform/registry/registry_conformance.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace {

// Each change appends to the file's text and renames the whole over the file.
class FileSubject final : public RegistrySubject {
 public:
  FileSubject()
      : registry_([this] { return folder_.file("registry.reg"); },
                  [](const std::string& problem) { ADD_FAILURE() << problem; }) {}

  platform::RegistryApi& api() override { return registry_; }
  void createKey(const std::u16string& key) override { append(section("", key)); }
  void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                const Bytes& data) override {
    char number[16];
    std::snprintf(number, sizeof(number), "hex(%x):", type);
    std::string line = quoted(name) + "=" + number;
    for (const std::uint8_t byte : data) {
      std::snprintf(number, sizeof(number), "%02x,", byte);
      line += number;
    }
    append(section("", key) + line + "\n");
  }
  void deleteValue(const std::u16string& key, const std::u16string& name) override {
    append(section("", key) + quoted(name) + "=-\n");
  }
  void deleteKey(const std::u16string& key) override { append(section("-", key)); }

 private:
  static std::string section(const std::string& sign, const std::u16string& key) {
    return "[" + sign + "HKEY_LOCAL_MACHINE\\" + platform::utf8FromUtf16(key) + "]\n";
  }
  static std::string quoted(const std::u16string& name) {
    return "\"" + platform::utf8FromUtf16(name) + "\"";
  }
  void append(const std::string& lines) {
    text_ += lines;
    std::ofstream(folder_.file("new"), std::ios::binary) << text_;
    std::filesystem::rename(folder_.file("new"), folder_.file("registry.reg"));
  }

  TempFolder folder_;
  std::string text_ = "Windows Registry Editor Version 5.00\n\n";
  platform::FileRegistry registry_;
};

}  // namespace

std::unique_ptr<RegistrySubject> makeSystemRegistrySubject() {
  return std::make_unique<FileSubject>();
}

}  // namespace zelta::test
