// A registry of a test's own in place of the machine's: for its lifetime HKEY_LOCAL_MACHINE is an
// empty key for the whole process. Real keys of the real registry, removed with everything in them
// at the end.
//
// Owned by the test, one at a time in a process; made before and ended after everything that reads
// the registry. Any thread may change what is in it. Failures end in an exception.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zelta::test {

class MachineRegistry {
 public:
  MachineRegistry();
  ~MachineRegistry();
  MachineRegistry(const MachineRegistry&) = delete;
  MachineRegistry& operator=(const MachineRegistry&) = delete;

  // Keys as in the platform's registry. A key is made where it is not there.
  void createKey(const std::u16string& key);
  void setDword(const std::u16string& key, const std::u16string& name, std::uint32_t value);
  void setText(const std::u16string& key, const std::u16string& name, const std::u16string& text);
  void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                const std::vector<std::uint8_t>& data);
  // What is not there is no error.
  void deleteValue(const std::u16string& key, const std::u16string& name);
  // With everything below it.
  void deleteKey(const std::u16string& key);

 private:
  void* machine_ = nullptr;  // the real HKEY_LOCAL_MACHINE
  void* root_ = nullptr;
  std::wstring path_;  // of the root
};

}  // namespace zelta::test
