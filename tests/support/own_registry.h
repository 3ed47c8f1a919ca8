// A registry of a test's own in the place of the system's, empty at first. It is the real one: real
// keys on Windows, where HKEY_LOCAL_MACHINE is another key for the whole process, and a real file
// on Linux.
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

  // Keys as in the platform's registry. A key is made if it is missing; a value that is there is
  // replaced.
  void createKey(const std::u16string& key);
  void setDword(const std::u16string& key, const std::u16string& name, std::uint32_t value) {
    setValue(key, name, platform::kRegDword, platform::registryDword(value));
  }
  void setText(const std::u16string& key, const std::u16string& name, const std::u16string& text) {
    setValue(key, name, platform::kRegSz, platform::registryText(text));
  }
  void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                const std::vector<std::uint8_t>& data);
  // With everything below it. What is not there is no error.
  void deleteKey(const std::u16string& key);
  void deleteValue(const std::u16string& key, const std::u16string& name);

 private:
  class System;
  const std::unique_ptr<System> system_;
};

}  // namespace zelta::test
