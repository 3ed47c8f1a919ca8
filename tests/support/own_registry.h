// A test's own registry, which replaces the system's and is empty at first. It is a real one: real
// keys on Windows, where HKEY_LOCAL_MACHINE becomes another key for the whole process, and a real
// file on Linux.
//
// Owned by the test, one at a time in a process; made before and ended after everything that reads
// the registry. One thread changes it. Failures end in an exception.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/registry/registry.h"
#include "platform/registry/registry_file.h"

namespace zelta::test {

class OwnRegistry {
 public:
  OwnRegistry();
  ~OwnRegistry();
  OwnRegistry(const OwnRegistry&) = delete;
  OwnRegistry& operator=(const OwnRegistry&) = delete;

  // Keys as in the platform's registry. A missing key is made; an existing value is replaced.
  void createKey(const std::u16string& key);
  void setDword(const std::u16string& key, const std::u16string& name, std::uint32_t value) {
    setValue(key, name, platform::kRegDword, platform::registryDword(value));
  }
  void setText(const std::u16string& key, const std::u16string& name, const std::u16string& text) {
    setValue(key, name, platform::kRegSz, platform::registryText(text));
  }
  void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                const std::vector<std::uint8_t>& data);
  // Deletes the key with everything below it. A missing key is no error.
  void deleteKey(const std::u16string& key);
  void deleteValue(const std::u16string& key, const std::u16string& name);

 private:
  class System;
  const std::unique_ptr<System> system_;
};

}  // namespace zelta::test
