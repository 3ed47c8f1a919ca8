#include "platform/registry/registry_content.h"

#include <algorithm>

namespace zelta::platform {

namespace {

constexpr char16_t kPathSeparator = u'\\';
// Sorts before every character of a name, and is in none.
constexpr char16_t kIdSeparator = u'\0';
constexpr char16_t kAfterIdSeparator = u'\x01';

char16_t foldUnit(char16_t unit) {
  constexpr char16_t distance = u'a' - u'A';  // in Latin-1 too
  const bool isAscii = unit >= u'A' && unit <= u'Z';
  const bool isLatin1 = unit >= 0x00C0 && unit <= 0x00DE && unit != 0x00D7;  // multiplication sign
  return isAscii || isLatin1 ? static_cast<char16_t>(unit + distance) : unit;
}

std::u16string idOf(std::u16string_view path) {
  if (!path.empty() && path.back() == kPathSeparator) path.remove_suffix(1);
  std::u16string id = foldName(path);
  std::replace(id.begin(), id.end(), kPathSeparator, kIdSeparator);
  return id;
}

}  // namespace

std::u16string foldName(std::u16string_view name) {
  std::u16string folded(name);
  std::transform(folded.begin(), folded.end(), folded.begin(), foldUnit);
  return folded;
}

std::vector<std::uint8_t> registryText(std::u16string_view text) {
  std::vector<std::uint8_t> data;
  data.reserve((text.size() + 1) * sizeof(char16_t));
  for (const char16_t unit : text) {
    data.push_back(static_cast<std::uint8_t>(unit & 0xFF));
    data.push_back(static_cast<std::uint8_t>(unit >> 8));
  }
  data.insert(data.end(), sizeof(char16_t), 0);
  return data;
}

std::vector<std::uint8_t> registryDword(std::uint32_t value) {
  std::vector<std::uint8_t> data;
  for (unsigned shift = 0; shift < 32; shift += 8) {
    data.push_back(static_cast<std::uint8_t>((value >> shift) & 0xFF));
  }
  return data;
}

RegistryContent::Range RegistryContent::subtree(const std::u16string& id) const {
  if (id.empty()) return {keys_.begin(), keys_.end()};
  return {keys_.lower_bound(id), keys_.lower_bound(id + kAfterIdSeparator)};
}

RegistryValues& RegistryContent::createKey(std::u16string_view path) { return keys_[idOf(path)]; }

void RegistryContent::deleteKey(std::u16string_view path) {
  const std::u16string id = idOf(path);
  const auto [first, last] = subtree(id);
  if (first == last) return;
  keys_.erase(first, last);
  const std::size_t parent = id.rfind(kIdSeparator);
  if (parent != std::u16string::npos) keys_.try_emplace(id.substr(0, parent));
}

bool RegistryContent::hasKey(std::u16string_view path) const {
  const std::u16string id = idOf(path);
  const auto [first, last] = subtree(id);
  return id.empty() || first != last;
}

const RegistryValue* RegistryContent::find(std::u16string_view path,
                                           std::u16string_view name) const {
  const auto key = keys_.find(idOf(path));
  if (key == keys_.end()) return nullptr;
  const auto value = key->second.find(foldName(name));
  return value == key->second.end() ? nullptr : &value->second;
}

bool RegistryContent::sameSubtree(const RegistryContent& other, std::u16string_view path) const {
  const std::u16string id = idOf(path);
  const auto [first, last] = subtree(id);
  const auto [otherFirst, otherLast] = other.subtree(id);
  return std::equal(first, last, otherFirst, otherLast);
}

}  // namespace zelta::platform
