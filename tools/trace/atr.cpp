#include "tools/trace/atr.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>

namespace zelta::trace {

namespace {

constexpr std::uint8_t kDirect = 0x3B;
constexpr std::uint8_t kInverse = 0x3F;
constexpr std::uint8_t kReserved = 0;
constexpr std::uint8_t kDefaultRates = 0x11;
constexpr int kCommonProtocol = 15;  // T=15 stands for bytes that belong to no protocol

struct Clock {
  int divisor;  // Fi; kReserved if the value is reserved
  int longest;  // fmax, kHz
};
// By the high half of TA1.
constexpr Clock kClocks[16] = {{372, 4000},    {372, 5000},   {558, 6000},    {744, 8000},
                               {1116, 12000},  {1488, 16000}, {1860, 20000},  {kReserved, 0},
                               {kReserved, 0}, {512, 5000},   {768, 7500},    {1024, 10000},
                               {1536, 15000},  {2048, 20000}, {kReserved, 0}, {kReserved, 0}};
// Di, by the low half of TA1.
constexpr int kFactors[16] = {kReserved, 1,         2,         4,        8,         16,
                              32,        64,        12,        20,       kReserved, kReserved,
                              kReserved, kReserved, kReserved, kReserved};

// The interface bytes TA, TB, TC and TD of one group.
struct Group {
  std::optional<std::uint8_t> a, b, c, d;
};

class Parser {
 public:
  explicit Parser(const Bytes& bytes) : bytes_(bytes) {}

  Atr parse() {
    const std::optional<std::uint8_t> first = next();
    if (first != kDirect && first != kInverse) return failed("begins with neither 3B nor 3F");
    atr_.inverse = *first == kInverse;
    const std::optional<std::uint8_t> format = next();
    if (!format) return failed("ends before T0");
    setRates(kDefaultRates);
    if (!parseGroups(*format)) return failed("ends within the interface bytes");
    const std::size_t count = *format & 0x0F;
    for (std::size_t i = 0; i < count; ++i) {
      const std::optional<std::uint8_t> byte = next();
      if (!byte) return failed("ends within the historical bytes");
      atr_.historical.push_back(*byte);
    }
    return finish();
  }

 private:
  std::optional<std::uint8_t> next() {
    if (at_ == bytes_.size()) return std::nullopt;
    return bytes_[at_++];
  }

  Atr failed(const char* problem) {
    atr_.problem = problem;
    if (atr_.protocols.empty()) atr_.protocols = {0};
    return atr_;
  }

  // The group with the bytes that the four bits announce; none if one of them is not there.
  std::optional<Group> nextGroup(std::uint8_t announced) {
    Group group;
    for (auto* byte : {&group.a, &group.b, &group.c, &group.d}) {
      if ((announced & 1) != 0 && !(*byte = next())) return std::nullopt;
      announced >>= 1;
    }
    return group;
  }

  bool parseGroups(std::uint8_t format) {
    int protocol = 0;  // whose bytes the group has
    std::uint8_t announced = format >> 4;
    for (int number = 1; announced != 0; ++number) {
      const std::optional<Group> group = nextGroup(announced);
      if (!group) return false;
      note(number, protocol, *group);
      if (!group->d) break;
      protocol = *group->d & 0x0F;
      announced = *group->d >> 4;
      if (protocol != 0) needsCheck_ = true;
      const auto& known = atr_.protocols;
      if (protocol != kCommonProtocol &&
          std::find(known.begin(), known.end(), protocol) == known.end()) {
        atr_.protocols.push_back(protocol);
      }
    }
    return true;
  }

  void note(int number, int protocol, const Group& group) {
    if (number == 1) {
      if (group.a) setRates(*group.a);
      if (group.c) atr_.guardTime = *group.c;
    } else if (number == 2) {
      if (group.a) atr_.specific = *group.a & 0x0F;
      if (group.c) atr_.waitingInteger = *group.c;
    } else if (protocol == 1 && !std::exchange(sawT1_, true)) {
      if (group.a) atr_.fieldSize = *group.a;
      if (group.b) {
        atr_.blockWaiting = *group.b >> 4;
        atr_.characterWaiting = *group.b & 0x0F;
      }
      if (group.c) atr_.usesCrc = (*group.c & 1) != 0;
    }
  }

  void setRates(std::uint8_t rates) {
    const Clock& clock = kClocks[rates >> 4];
    const int factor = kFactors[rates & 0x0F];
    atr_.clockDivisor = clock.divisor == kReserved ? std::nullopt : std::optional(clock.divisor);
    atr_.rateFactor = factor == kReserved ? std::nullopt : std::optional(factor);
    atr_.longestClock = clock.longest;
  }

  Atr finish() {
    if (atr_.protocols.empty()) atr_.protocols = {0};
    if (needsCheck_) {
      if (at_ == bytes_.size()) return failed("has no check byte");
      std::uint8_t sum = 0;
      for (std::size_t i = 1; i <= at_; ++i) sum ^= bytes_[i];
      atr_.checkGood = sum == 0;
      ++at_;
      if (sum != 0) return failed("has a wrong check byte");
    }
    if (at_ != bytes_.size()) return failed("goes on after its end");
    return atr_;
  }

  const Bytes& bytes_;
  std::size_t at_ = 0;
  bool needsCheck_ = false;
  bool sawT1_ = false;
  Atr atr_;
};

std::string protocolText(const Atr& atr) {
  std::string text;
  for (const int protocol : atr.protocols) {
    text += (text.empty() ? "T=" : ", T=") + std::to_string(protocol);
  }
  if (atr.specific) text += "; specific mode T=" + std::to_string(*atr.specific);
  return text;
}

// A number of thousandths, without needless zeros: 4000 is "4", 7500 "7.5".
std::string thousandths(int number) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%g", static_cast<double>(number) / 1000);
  return text;
}

std::string clockText(const Atr& atr) {
  if (!atr.clockDivisor) return "reserved value";
  return "at most " + thousandths(atr.longestClock) + " MHz (Fi " +
         std::to_string(*atr.clockDivisor) + ")";
}

std::string rateText(const Atr& atr) {
  if (!atr.clockDivisor || !atr.rateFactor) return "reserved value";
  constexpr std::int64_t kHertz = 1000;
  const std::int64_t rate = atr.longestClock * kHertz * *atr.rateFactor / *atr.clockDivisor;
  return "at most " + std::to_string(rate) + " bit/s (Di " + std::to_string(*atr.rateFactor) +
         ", " + thousandths(*atr.clockDivisor * 1000 / *atr.rateFactor) + " clocks a bit)";
}

bool offers(const Atr& atr, int protocol) {
  return std::find(atr.protocols.begin(), atr.protocols.end(), protocol) != atr.protocols.end();
}

std::string guardText(const Atr& atr) {
  constexpr int kShortest = 255;
  if (atr.guardTime == kShortest) return "the shortest";
  return std::to_string(atr.guardTime) + " bits more";
}

struct CompactTag {
  std::uint8_t tag;
  const char* name;
};
// Compact-TLV data objects of ISO/IEC 7816-4.
constexpr CompactTag kCompactTags[] = {
    {1, "country"},        {2, "issuer"},        {3, "services"},
    {4, "initial access"}, {5, "issuer's data"}, {6, "pre-issuing data"},
    {7, "capabilities"},   {8, "status"},        {0xF, "application"},
};

// The compact-TLV objects among the historical bytes; empty if they are none.
std::string compactText(const Bytes& historical) {
  constexpr std::uint8_t kStatusAtEnd = 0x00;
  constexpr std::uint8_t kPlain = 0x80;
  constexpr std::size_t kStatusSize = 3;
  if (historical.empty()) return {};
  const bool ended = historical[0] == kStatusAtEnd && historical.size() > kStatusSize;
  if (!ended && historical[0] != kPlain) return {};
  const std::size_t end = historical.size() - (ended ? kStatusSize : 0);
  std::string text;
  for (std::size_t at = 1; at < end;) {
    const std::uint8_t tag = historical[at] >> 4;
    const std::size_t length = historical[at] & 0x0F;
    if (length > end - at - 1) return {};
    const auto* const known =
        std::find_if(std::begin(kCompactTags), std::end(kCompactTags),
                     [tag](const CompactTag& entry) { return entry.tag == tag; });
    text += text.empty() ? "" : ", ";
    text += known == std::end(kCompactTags) ? "tag " + toHex({tag}) : std::string(known->name);
    text += " " + toHex(historical.data() + at + 1, length);
    at += length + 1;
  }
  if (ended)
    text += (text.empty() ? "status " : ", status ") + toHex(historical.data() + end, kStatusSize);
  return text;
}

std::string historicalText(const Bytes& historical) {
  if (historical.empty()) return "none";
  std::string text = toHex(historical);
  std::string shown;
  for (const std::uint8_t byte : historical) {
    shown += byte >= ' ' && byte < 0x7F ? static_cast<char>(byte) : '.';
  }
  text += " \"" + shown + "\"";
  const std::string objects = compactText(historical);
  return objects.empty() ? text : text + ": " + objects;
}

}  // namespace

Atr parseAtr(const Bytes& bytes) { return Parser(bytes).parse(); }

std::vector<std::pair<std::string, std::string>> describeAtr(const Bytes& bytes) {
  const Atr atr = parseAtr(bytes);
  std::vector<std::pair<std::string, std::string>> rows;
  if (!atr.problem.empty()) rows.emplace_back("problem", "the ATR " + atr.problem);
  rows.emplace_back("protocols", protocolText(atr));
  rows.emplace_back("clock", clockText(atr));
  rows.emplace_back("rate", rateText(atr));
  rows.emplace_back("guard time", guardText(atr));
  if (offers(atr, 0))
    rows.emplace_back("T=0", "waiting integer " + std::to_string(atr.waitingInteger));
  if (offers(atr, 1)) {
    rows.emplace_back("T=1", "blocks of " + std::to_string(atr.fieldSize) + " bytes, BWI " +
                                 std::to_string(atr.blockWaiting) + ", CWI " +
                                 std::to_string(atr.characterWaiting) +
                                 (atr.usesCrc ? ", CRC" : ", LRC"));
  }
  rows.emplace_back("historical", historicalText(atr.historical));
  return rows;
}

}  // namespace zelta::trace
