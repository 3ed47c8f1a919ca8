// The access to the log folder, as Windows reads the access list.
#include <windows.h>
// windows.h comes first
#include <gtest/gtest.h>
#include <sddl.h>

#include <map>
#include <string>

#include "tools/setup/windows_error.h"
#include "tools/setup/windows_parts.h"

namespace zelta::setup {
namespace {

constexpr ACCESS_MASK kModify =
    FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE | DELETE;

TEST(LogFolderAccess, IsForTheSystemAdministratorsAndLocalServiceOnly) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
      kLogFolderAccess, SDDL_REVISION_1, &descriptor, nullptr));
  BOOL isPresent = FALSE;
  BOOL isDefault = FALSE;
  PSID owner = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorOwner(descriptor, &owner, &isDefault));
  EXPECT_TRUE(IsWellKnownSid(owner, WinBuiltinAdministratorsSid));
  ACL* list = nullptr;
  ASSERT_TRUE(GetSecurityDescriptorDacl(descriptor, &isPresent, &list, &isDefault));
  ASSERT_TRUE(isPresent);
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  ASSERT_TRUE(GetSecurityDescriptorControl(descriptor, &control, &revision));
  EXPECT_TRUE(control & SE_DACL_PROTECTED);  // inherits no user's rights from ProgramData

  std::map<std::string, ACCESS_MASK> found;
  for (DWORD index = 0; index < list->AceCount; ++index) {
    void* entry = nullptr;
    ASSERT_TRUE(GetAce(list, index, &entry));
    const auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
    EXPECT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
    EXPECT_EQ(allowed->Header.AceFlags, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE);
    wchar_t* sid = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(const_cast<DWORD*>(&allowed->SidStart), &sid));
    found[utf8(sid)] = allowed->Mask;
    LocalFree(sid);
  }
  LocalFree(descriptor);
  EXPECT_EQ(found, (std::map<std::string, ACCESS_MASK>{{"S-1-5-18", FILE_ALL_ACCESS},
                                                       {"S-1-5-32-544", FILE_ALL_ACCESS},
                                                       {"S-1-5-19", kModify}}));
}

}  // namespace
}  // namespace zelta::setup
