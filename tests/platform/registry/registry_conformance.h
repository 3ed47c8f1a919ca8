// What the conformance suite of the registry needs of an implementation, how implementations may
// differ, and the implementations that it runs on.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/process/error.h"
#include "platform/registry/registry.h"

namespace zelta::test {

// A registry and a way to change it.
class RegistrySubject {
 public:
  using Bytes = std::vector<std::uint8_t>;

  virtual ~RegistrySubject() = default;
  virtual platform::RegistryApi& api() = 0;
  virtual void createKey(const std::u16string& key) = 0;
  virtual void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                        const Bytes& data) = 0;
  virtual void deleteValue(const std::u16string& key, const std::u16string& name) = 0;
  virtual void deleteKey(const std::u16string& key) = 0;

  // Differences.
  // What reading a number gives whose value is shorter, and longer, than a number is.
  virtual std::uint32_t readOfShortNumber() const { return platform::error::kInvalidData; }
  virtual std::uint32_t readOfLongNumber() const { return platform::error::kInvalidData; }
  // A number that is not read leaves what there was; otherwise anything may be there.
  virtual bool failedReadLeavesTheNumber() const { return true; }
  // A notification comes at once for what has changed since the key was opened, and since the
  // notification before.
  virtual bool remembersChangesSinceOpening() const { return true; }
  virtual bool remembersChangesBetween() const { return true; }
  // Writing the value that is there is a change.
  virtual bool sameValueIsAChange() const { return false; }
  // Closing a key signals its pending notification.
  virtual bool closingSignals() const { return false; }
  // An open key stays the one of its name when it is deleted and made again; otherwise its use
  // fails with 1018.
  virtual bool keyOutlivesDeletion() const { return true; }
};

std::unique_ptr<RegistrySubject> makeFakeRegistrySubject();
// The operating system's, with nothing else in it.
std::unique_ptr<RegistrySubject> makeSystemRegistrySubject();

}  // namespace zelta::test
