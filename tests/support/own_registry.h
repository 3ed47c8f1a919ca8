// A registry of a test's own in the place of the system's, empty at first. It is the real one: of
// real keys on Windows, a real file on Linux.
//
// Owned by the test, one at a time in a process; made before and ended after everything that reads
// the registry. One thread changes it. Failures end in an exception.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace zelta::test {

class OwnRegistry {
 public:
  OwnRegistry();
  ~OwnRegistry();
  OwnRegistry(const OwnRegistry&) = delete;
  OwnRegistry& operator=(const OwnRegistry&) = delete;

  // Keys as in the platform's registry. A key is made where it is not there; a value that is there
  // is replaced.
  void setDword(const std::u16string& key, const std::u16string& name, std::uint32_t value);
  // Without quotation marks and backslashes.
  void setText(const std::u16string& key, const std::u16string& name, const std::u16string& text);

 private:
  class System;
  const std::unique_ptr<System> system_;
};

}  // namespace zelta::test
