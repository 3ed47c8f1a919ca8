#include "platform/pipe/sddl.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <utility>

#include "platform/process/error.h"

namespace zelta::platform {

namespace {

struct TrusteeName {
  const char* text;
  Trustee trustee;
};

constexpr TrusteeName kTrustees[] = {
    {"SY", Trustee::kSystem},         {"S-1-5-18", Trustee::kSystem},
    {"LS", Trustee::kLocalService},   {"S-1-5-19", Trustee::kLocalService},
    {"BG", Trustee::kGuests},         {"S-1-5-32-546", Trustee::kGuests},
    {"AN", Trustee::kAnonymous},      {"S-1-5-7", Trustee::kAnonymous},
    {"WD", Trustee::kEveryone},       {"S-1-1-0", Trustee::kEveryone},
    {"BA", Trustee::kAdministrators}, {"S-1-5-32-544", Trustee::kAdministrators},
    {"OW", Trustee::kOwner},          {"S-1-3-4", Trustee::kOwner},
    {"CO", Trustee::kOwner},          {"S-1-3-0", Trustee::kOwner},
};

struct Rights {
  const char* text;
  bool read;
  bool write;
};

constexpr Rights kRights[] = {
    {"GA", true, true},   {"FA", true, true},   {"GR", true, false},  {"FR", true, false},
    {"GW", false, true},  {"FW", false, true},  {"GX", false, false}, {"FX", false, false},
    {"RC", false, false}, {"SD", false, false}, {"WD", false, false}, {"WO", false, false},
};

// Bits of an access mask written as a number.
constexpr std::uint32_t kReadData = 0x00000001;
constexpr std::uint32_t kWriteData = 0x00000002;
constexpr std::uint32_t kGenericAll = 0x10000000;
constexpr std::uint32_t kGenericWrite = 0x40000000;
constexpr std::uint32_t kGenericRead = 0x80000000;

constexpr const char* kEntryFlags[] = {"OI", "CI", "NP", "IO", "ID"};
constexpr char kInheritOnly[] = "IO";
constexpr const char* kListFlags[] = {"AR", "AI", "P"};

enum Field { kType, kFlags, kRightsField, kObject, kInheritedObject, kTrustee, kFieldCount };
using Fields = std::array<std::string, kFieldCount>;

// Reads the descriptor from left to right; the first fault stays.
class Parser {
 public:
  explicit Parser(const std::string& text) : rest_(text) {}

  SddlResult parse() {
    skipTrustee("O:");
    skipTrustee("G:");
    if (!take("D:")) fail(error::kInvalidParameter);
    skipListFlags();
    while (error_ == error::kSuccess && take("(")) parseEntry();
    if (rest_.compare(0, 2, "S:") == 0) fail(error::kNotSupported);
    if (!rest_.empty()) fail(error::kInvalidParameter);
    if (error_ != error::kSuccess) entries_.clear();
    return {error_, std::move(entries_)};
  }

 private:
  void fail(std::uint32_t error) {
    if (error_ == error::kSuccess) error_ = error;
  }

  bool take(const std::string& text) {
    if (rest_.compare(0, text.size(), text) != 0) return false;
    rest_.erase(0, text.size());
    return true;
  }

  // The owner and the group grant nothing by themselves.
  void skipTrustee(const std::string& tag) {
    if (!take(tag)) return;
    const std::size_t next = rest_.find(':');
    // The next section's letter stands before its colon.
    if (next == std::string::npos || next == 0) return fail(error::kInvalidParameter);
    trustee(rest_.substr(0, next - 1));
    rest_.erase(0, next - 1);
  }

  void skipListFlags() {
    const auto takeOne = [this] {
      return std::any_of(std::begin(kListFlags), std::end(kListFlags),
                         [this](const char* flag) { return take(flag); });
    };
    while (takeOne()) {
    }
  }

  void parseEntry() {
    const std::size_t end = rest_.find(')');
    if (end == std::string::npos) return fail(error::kInvalidParameter);
    const std::optional<Fields> split = splitFields(rest_.substr(0, end));
    if (!split) return fail(error::kInvalidParameter);
    const Fields& fields = *split;
    rest_.erase(0, end + 1);

    if (fields[kType] != "A" && fields[kType] != "D") {
      return fail(fields[kType].empty() ? error::kInvalidParameter : error::kNotSupported);
    }
    if (!fields[kObject].empty() || !fields[kInheritedObject].empty()) {
      return fail(error::kInvalidParameter);
    }
    AccessEntry entry;
    entry.allow = fields[kType] == "A";
    const bool applies = parseFlags(fields[kFlags]);
    parseRights(fields[kRightsField], &entry);
    entry.trustee = trustee(fields[kTrustee]).value_or(Trustee::kSystem);
    if (error_ == error::kSuccess && applies) entries_.push_back(entry);
  }

  static std::optional<Fields> splitFields(const std::string& text) {
    Fields fields;
    std::size_t start = 0;
    for (std::size_t field = 0; field + 1 < kFieldCount; ++field) {
      const std::size_t end = text.find(';', start);
      if (end == std::string::npos) return std::nullopt;
      fields[field] = text.substr(start, end - start);
      start = end + 1;
    }
    fields[kTrustee] = text.substr(start);
    return fields;
  }

  // False if the entry is for objects below this one only.
  bool parseFlags(const std::string& text) {
    bool applies = true;
    for (std::size_t at = 0; at < text.size(); at += 2) {
      const std::string flag = text.substr(at, 2);
      if (std::find(std::begin(kEntryFlags), std::end(kEntryFlags), flag) ==
          std::end(kEntryFlags)) {
        fail(error::kInvalidParameter);
      }
      if (flag == kInheritOnly) applies = false;
    }
    return applies;
  }

  void parseRights(const std::string& text, AccessEntry* entry) {
    if (text.empty()) return fail(error::kInvalidParameter);
    if (text.front() >= '0' && text.front() <= '9') return parseMask(text, entry);
    for (std::size_t at = 0; at < text.size(); at += 2) {
      const std::string pair = text.substr(at, 2);
      const auto* right = std::find_if(std::begin(kRights), std::end(kRights),
                                       [&](const Rights& known) { return pair == known.text; });
      if (right == std::end(kRights)) return fail(error::kInvalidParameter);
      entry->read = entry->read || right->read;
      entry->write = entry->write || right->write;
    }
  }

  void parseMask(const std::string& text, AccessEntry* entry) {
    char* end = nullptr;
    const unsigned long value = std::strtoul(text.c_str(), &end, 0);
    if (*end != '\0' || value > 0xFFFFFFFFUL) return fail(error::kInvalidParameter);
    const std::uint32_t mask = static_cast<std::uint32_t>(value);
    entry->read = (mask & (kReadData | kGenericAll | kGenericRead)) != 0;
    entry->write = (mask & (kWriteData | kGenericAll | kGenericWrite)) != 0;
  }

  std::optional<Trustee> trustee(const std::string& text) {
    for (const TrusteeName& known : kTrustees) {
      if (text == known.text) return known.trustee;
    }
    const auto upper = [](char c) { return c >= 'A' && c <= 'Z'; };
    const bool alias = text.size() == 2 && upper(text[0]) && upper(text[1]);
    const bool sid = text.compare(0, 4, "S-1-") == 0 && text.size() > 4 &&
                     text.find_first_not_of("0123456789-", 4) == std::string::npos;
    fail(alias || sid ? error::kNoneMapped : error::kInvalidParameter);
    return std::nullopt;
  }

  std::string rest_;
  std::uint32_t error_ = error::kSuccess;
  std::vector<AccessEntry> entries_;
};

}  // namespace

SddlResult parseSddl(const std::string& sddl) { return Parser(sddl).parse(); }

}  // namespace zelta::platform
