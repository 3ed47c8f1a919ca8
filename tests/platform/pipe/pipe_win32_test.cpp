// What the system is given for a pipe: its security descriptor, and what the end becomes.
#include <windows.h>
// windows.h comes first
#include <gtest/gtest.h>
#include <sddl.h>

#include <string>
#include <vector>

#include "platform/pipe/pipe.h"
#include "platform/process/error.h"

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

class PipeEndWin32 : public ::testing::Test {
 protected:
  PipeEndWin32() {
    PipeArguments arguments;
    arguments.openMode = 0x00080003;  // as the driver's pipes
    arguments.maxInstances = 1;
    const std::string name = R"(\\.\pipe\zelta_test_)" + std::to_string(GetCurrentProcessId());
    pipe_ = systemPipes().create(name, arguments);
  }
  ~PipeEndWin32() override { systemPipes().close(pipe_); }
  void SetUp() override { ASSERT_NE(pipe_, invalidPipe()) << lastError(); }

  PipeHandleValue pipe_;
};

TEST_F(PipeEndWin32, IsTheServersOfOneInstanceForBytesThatKeepsNone) {
  constexpr DWORD kUnset = 99;
  DWORD flags = kUnset;
  DWORD outSize = kUnset;
  DWORD inSize = kUnset;
  DWORD maxInstances = kUnset;
  ASSERT_TRUE(GetNamedPipeInfo(pipe_, &flags, &outSize, &inSize, &maxInstances)) << GetLastError();
  EXPECT_EQ(flags, DWORD{PIPE_SERVER_END | PIPE_TYPE_BYTE});
  EXPECT_EQ(outSize, 0u);
  EXPECT_EQ(inSize, 0u);
  EXPECT_EQ(maxInstances, 1u);
}

TEST_F(PipeEndWin32, ReadsBytesAndWaits) {
  DWORD state = 99;
  DWORD instances = 99;
  ASSERT_TRUE(GetNamedPipeHandleStateW(pipe_, &state, &instances, nullptr, nullptr, nullptr, 0))
      << GetLastError();
  EXPECT_EQ(state, DWORD{PIPE_READMODE_BYTE | PIPE_WAIT});
  EXPECT_EQ(instances, 1u);
}

TEST_F(PipeEndWin32, IsNotInherited) {
  DWORD flags = 99;
  ASSERT_TRUE(GetHandleInformation(pipe_, &flags)) << GetLastError();
  EXPECT_EQ(flags & HANDLE_FLAG_INHERIT, 0u);
}

}  // namespace
}  // namespace zelta::platform
