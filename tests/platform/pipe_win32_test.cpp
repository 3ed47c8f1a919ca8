// What the pipes' security descriptor text becomes.
#include <windows.h>
// windows.h comes first
#include <gtest/gtest.h>
#include <sddl.h>

#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/pipe.h"

namespace zelta::platform {
namespace {

// Of the driver's pipes.
constexpr char kSddl[] = "D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;LS)(A;OICI;GA;;;SY)";

struct Entry {
  BYTE type;
  BYTE flags;
  DWORD mask;
  std::string account;

  bool operator==(const Entry& other) const {
    return type == other.type && flags == other.flags && mask == other.mask &&
           account == other.account;
  }
};

std::vector<Entry> entriesOf(SecurityDescriptor descriptor) {
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  ACL* list = nullptr;
  EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &list, &defaulted));
  EXPECT_TRUE(present);
  std::vector<Entry> entries;
  for (DWORD i = 0; list != nullptr && i < list->AceCount; ++i) {
    void* ace = nullptr;
    EXPECT_TRUE(GetAce(list, i, &ace));
    // Both types are laid out alike.
    auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
    char* account = nullptr;
    EXPECT_TRUE(ConvertSidToStringSidA(&allowed->SidStart, &account));
    entries.push_back({allowed->Header.AceType, allowed->Header.AceFlags, allowed->Mask, account});
    LocalFree(account);
  }
  return entries;
}

TEST(PipeSecurityWin32, DenialsComeBeforeThoseWhoAreAdmitted) {
  SecurityDescriptor descriptor = nullptr;
  ASSERT_TRUE(systemPipes().convertSecurityDescriptor(kSddl, &descriptor));
  constexpr BYTE kInherit = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
  const std::vector<Entry> expected = {
      {ACCESS_DENIED_ACE_TYPE, kInherit, GENERIC_ALL, "S-1-5-32-546"},  // guests
      {ACCESS_DENIED_ACE_TYPE, kInherit, GENERIC_ALL, "S-1-5-7"},       // anonymous
      {ACCESS_ALLOWED_ACE_TYPE, kInherit, GENERIC_ALL, "S-1-5-19"},     // local service
      {ACCESS_ALLOWED_ACE_TYPE, kInherit, GENERIC_ALL, "S-1-5-18"},     // the system
  };
  EXPECT_TRUE(entriesOf(descriptor) == expected);
  LocalFree(descriptor);
}

TEST(PipeSecurityWin32, MalformedTextIsRefused) {
  for (const char* text : {"D:(A;OICI;GA;;;", "D:(A;OICI;GA;;;QQ)", "nothing of the kind"}) {
    SecurityDescriptor descriptor = nullptr;
    setLastError(0);
    EXPECT_FALSE(systemPipes().convertSecurityDescriptor(text, &descriptor)) << text;
    EXPECT_NE(lastError(), error::kSuccess);
  }
}

}  // namespace
}  // namespace zelta::platform
