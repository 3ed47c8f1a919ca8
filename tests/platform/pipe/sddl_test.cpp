#include "platform/pipe/sddl.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/process/error.h"

namespace zelta::platform {

bool operator==(const AccessEntry& a, const AccessEntry& b) {
  return a.allow == b.allow && a.trustee == b.trustee && a.read == b.read && a.write == b.write;
}

void PrintTo(const AccessEntry& entry, std::ostream* stream) {
  *stream << (entry.allow ? "allow " : "deny ") << static_cast<int>(entry.trustee)
          << (entry.read ? " read" : "") << (entry.write ? " write" : "");
}

namespace {

using Entries = std::vector<AccessEntry>;

Entries parsed(const std::string& text) {
  SddlResult result = parseSddl(text);
  EXPECT_EQ(result.error, error::kSuccess) << text;
  return std::move(result.entries);
}

TEST(SddlTest, SeveralEntries_ComeInTheirOrder) {
  EXPECT_EQ(parsed("D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;LS)(A;OICI;GA;;;SY)"),
            (Entries{{false, Trustee::kGuests, true, true},
                     {false, Trustee::kAnonymous, true, true},
                     {true, Trustee::kLocalService, true, true},
                     {true, Trustee::kSystem, true, true}}));
}

TEST(SddlTest, ListWithoutEntries_IsValid) {
  EXPECT_EQ(parsed("D:"), Entries{});
  EXPECT_EQ(parsed("D:PAIAR"), Entries{});
}

TEST(SddlTest, Trustee_IsKnownByAliasAndBySid) {
  const struct {
    const char* text;
    Trustee trustee;
  } known[] = {{"SY", Trustee::kSystem},         {"S-1-5-18", Trustee::kSystem},
               {"LS", Trustee::kLocalService},   {"S-1-5-19", Trustee::kLocalService},
               {"BG", Trustee::kGuests},         {"S-1-5-32-546", Trustee::kGuests},
               {"AN", Trustee::kAnonymous},      {"S-1-5-7", Trustee::kAnonymous},
               {"WD", Trustee::kEveryone},       {"S-1-1-0", Trustee::kEveryone},
               {"BA", Trustee::kAdministrators}, {"S-1-5-32-544", Trustee::kAdministrators},
               {"OW", Trustee::kOwner},          {"S-1-3-4", Trustee::kOwner},
               {"CO", Trustee::kOwner},          {"S-1-3-0", Trustee::kOwner}};
  for (const auto& one : known) {
    EXPECT_EQ(parsed("D:(A;;GA;;;" + std::string(one.text) + ")"),
              (Entries{{true, one.trustee, true, true}}))
        << one.text;
  }
}

TEST(SddlTest, Rights_MeanReadingAndWriting) {
  const struct {
    const char* text;
    bool read;
    bool write;
  } known[] = {
      {"GA", true, true},         {"FA", true, true},          {"GR", true, false},
      {"FR", true, false},        {"GW", false, true},         {"FW", false, true},
      {"GRGW", true, true},       {"GX", false, false},        {"RCSDWDWOFX", false, false},
      {"0x10000000", true, true}, {"0x80000000", true, false}, {"0x40000000", false, true},
      {"0x1f01ff", true, true},   {"1", true, false},          {"0x2", false, true},
      {"0x20000", false, false}};
  for (const auto& one : known) {
    EXPECT_EQ(parsed("D:(D;;" + std::string(one.text) + ";;;WD)"),
              (Entries{{false, Trustee::kEveryone, one.read, one.write}}))
        << one.text;
  }
}

TEST(SddlTest, OwnerAndGroupBeforeTheList_AreAccepted) {
  EXPECT_EQ(parsed("O:SYG:BAD:(A;;GA;;;SY)").size(), 1U);
  EXPECT_EQ(parsed("G:S-1-5-18D:(A;;GA;;;SY)").size(), 1U);
}

TEST(SddlTest, EntryThatIsOnlyInherited_DoesNotApply) {
  EXPECT_EQ(parsed("D:(A;OICIIO;GA;;;WD)(A;;GA;;;SY)"),
            (Entries{{true, Trustee::kSystem, true, true}}));
}

TEST(SddlTest, TextThatCannotBeHonouredWhole_IsRefused) {
  const std::pair<std::uint32_t, std::vector<const char*>> refused[] = {
      {error::kInvalidParameter,
       {"",
        "D",
        "(A;;GA;;;SY)",
        "D:(A;;GA;;;SY",
        "D:A;;GA;;;SY)",
        "D:()",
        "D:(A;;GA;;SY)",
        "D:(A;;GA;;;;SY)",
        "D:(A;;GA;;;)",
        "D:(A;;;;;SY)",
        "D:(;;GA;;;SY)",
        "D:(A;OIC;GA;;;SY)",
        "D:(A;XX;GA;;;SY)",
        "D:(A;;G;;;SY)",
        "D:(A;;ZZ;;;SY)",
        "D:(A;;GAG;;;SY)",
        "D:(A;;0xZZ;;;SY)",
        "D:(A;;0x1FFFFFFFF;;;SY)",
        "D:(A;;GA;guid;;SY)",
        "D:(A;;GA;;guid;SY)",
        "D:(A;;GA;;;sy)",
        "D:(A;;GA;;;SYS)",
        "D:(A;;GA;;;S-1-)",
        "D:(A;;GA;;;S-1-x)",
        "D:(A;;GA;;;SY)x",
        "D:(A;;GA;;;SY) (A;;GA;;;LS)",
        "D:X(A;;GA;;;SY)",
        "O:D:(A;;GA;;;SY)",
        "O:SY",
        " D:(A;;GA;;;SY)"}},
      {error::kNotSupported, {"D:(A;;GA;;;SY)S:(AU;SA;GA;;;WD)", "D:(OA;;GA;;;SY)"}},
      {error::kNoneMapped,
       {"D:(A;;GA;;;BU)", "D:(D;;GA;;;S-1-5-21-1-2-3-500)(A;;GA;;;WD)", "O:DUD:(A;;GA;;;SY)"}},
  };
  for (const auto& [expected, texts] : refused) {
    for (const char* text : texts) {
      const SddlResult result = parseSddl(text);
      EXPECT_EQ(result.error, expected) << text;
      EXPECT_TRUE(result.entries.empty()) << "nothing of a refused list is kept: " << text;
    }
  }
}

}  // namespace

}  // namespace zelta::platform
