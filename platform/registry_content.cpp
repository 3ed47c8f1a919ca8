#include "platform/registry_content.h"

#include <utility>

namespace zelta::platform {

namespace {

constexpr char16_t kPathSeparator = u'\\';
// Sorts before every character of a name, and is in none.
constexpr char16_t kIdSeparator = u'\0';
// Stands for a zero unit in a caller's path, which no stored name holds.
constexpr char16_t kNoCharacter = 0xFFFF;

// Capitals from `first` to `last` whose small letters lie `distance` further on, or, with
// `alternating`, each right after its capital.
struct CaseRange {
  char16_t first;
  char16_t last;
  char16_t distance;
  bool alternating;
};

constexpr CaseRange kCaseRanges[] = {
    {u'A', u'Z', 0x20, false},      // ASCII
    {0x00C0, 0x00D6, 0x20, false},  // Latin-1, up to the multiplication sign
    {0x00D8, 0x00DE, 0x20, false},  // Latin-1, from there on
    {0x0100, 0x012E, 1, true},      // Latin Extended-A, capitals at even places
    {0x0132, 0x0136, 1, true},      //
    {0x0139, 0x0147, 1, true},      // capitals at odd places
    {0x014A, 0x0176, 1, true},      // at even places again
    {0x0179, 0x017D, 1, true},      //
    {0x0391, 0x03A1, 0x20, false},  // Greek
    {0x03A3, 0x03AB, 0x20, false},  //
    {0x0400, 0x040F, 0x50, false},  // Cyrillic
    {0x0410, 0x042F, 0x20, false},  //
};

char16_t foldUnit(char16_t unit) {
  for (const CaseRange& range : kCaseRanges) {
    if (unit < range.first) return unit;
    if (unit > range.last) continue;
    if (range.alternating && (unit - range.first) % 2 != 0) return unit;
    return static_cast<char16_t>(unit + range.distance);
  }
  return unit;
}

std::u16string idOf(std::u16string_view path) {
  if (!path.empty() && path.back() == kPathSeparator) path.remove_suffix(1);
  std::u16string id;
  id.reserve(path.size());
  for (const char16_t unit : path) {
    if (unit == kPathSeparator) {
      id.push_back(kIdSeparator);
    } else {
      id.push_back(unit == kIdSeparator ? kNoCharacter : foldUnit(unit));
    }
  }
  return id;
}

bool isBelow(std::u16string_view id, std::u16string_view ancestor) {
  if (ancestor.empty()) return !id.empty();
  return id.size() > ancestor.size() && id[ancestor.size()] == kIdSeparator &&
         id.substr(0, ancestor.size()) == ancestor;
}

bool isAtOrBelow(std::u16string_view id, std::u16string_view ancestor) {
  return id == ancestor || isBelow(id, ancestor);
}

}  // namespace

std::u16string foldName(std::u16string_view name) {
  std::u16string folded(name);
  for (char16_t& unit : folded) unit = foldUnit(unit);
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

// The keys at and below one, without those that are there only because something below them is:
// whether such a key was written down makes no difference to what the registry holds.
struct RegistryContent::Range {
  Range(const Keys& all, std::u16string_view root)
      : keys(all), top(root), at(all.lower_bound(std::u16string(root))) {
    skip();
  }

  bool atEnd() const { return at == keys.end() || !isAtOrBelow(at->first, top); }

  void next() {
    ++at;
    skip();
  }

  void skip() {
    while (!atEnd() && at->second.empty()) {
      const auto following = std::next(at);
      if (following == keys.end() || !isBelow(following->first, at->first)) return;
      at = following;
    }
  }

  const Keys& keys;
  const std::u16string_view top;
  Keys::const_iterator at;
};

RegistryValues& RegistryContent::createKey(std::u16string_view path) { return keys_[idOf(path)]; }

void RegistryContent::deleteKey(std::u16string_view path) {
  const std::u16string id = idOf(path);
  const auto first = keys_.lower_bound(id);
  auto last = first;
  while (last != keys_.end() && isAtOrBelow(last->first, id)) ++last;
  if (first == last) return;
  keys_.erase(first, last);
  const std::size_t parent = id.rfind(kIdSeparator);
  if (parent != std::u16string::npos) keys_.try_emplace(id.substr(0, parent));
}

bool RegistryContent::hasKey(std::u16string_view path) const {
  const std::u16string id = idOf(path);
  if (id.empty()) return true;
  const auto found = keys_.lower_bound(id);
  return found != keys_.end() && isAtOrBelow(found->first, id);
}

const RegistryValue* RegistryContent::find(std::u16string_view path,
                                           std::u16string_view name) const {
  const auto key = keys_.find(idOf(path));
  if (key == keys_.end()) return nullptr;
  const auto value = key->second.find(foldName(name));
  return value == key->second.end() ? nullptr : &value->second;
}

bool RegistryContent::sameSubtree(const RegistryContent& other, std::u16string_view path) const {
  if (this == &other) return true;
  const std::u16string id = idOf(path);
  Range mine(keys_, id);
  Range theirs(other.keys_, id);
  for (; !mine.atEnd() && !theirs.atEnd(); mine.next(), theirs.next()) {
    if (*mine.at != *theirs.at) return false;
  }
  return mine.atEnd() && theirs.atEnd();
}

}  // namespace zelta::platform
