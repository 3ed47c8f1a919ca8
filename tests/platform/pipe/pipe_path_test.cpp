#include "platform/pipe/pipe_path.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace {

using platform::pipeSocketPath;

constexpr char kRoot[] = "ZELTA_PIPE_ROOT";

std::string inRoot(const char* root, const std::string& name) {
  const ScopedVariable variable(kRoot, root);
  return pipeSocketPath(name);
}

TEST(PipePathTest, Name_BecomesFoldersBelowTheRootOrTheDefaultRoot) {
  EXPECT_EQ(inRoot("/some/root", "\\\\.\\pipe\\A\\B"), "/some/root/A/B");
  EXPECT_EQ(inRoot("/some/root", "\\\\.\\pipe\\A~\\B"), "/some/root/A~/B");
  EXPECT_EQ(inRoot("", "\\\\.\\pipe\\ProtectedPrefix\\LocalService\\zelta_smartcard_command0"),
            "/run/zelta/pipe/ProtectedPrefix/LocalService/zelta_smartcard_command0");
  const ScopedVariable restored(kRoot, "x");
  ASSERT_EQ(unsetenv(kRoot), 0);
  EXPECT_EQ(pipeSocketPath("\\\\.\\pipe\\A"), "/run/zelta/pipe/A");
}

TEST(PipePathTest, NameThatIsNoPipesOrWouldReachAnotherFile_HasNoPath) {
  for (const std::string name : {"", "A", "\\\\.\\pipe", "\\\\.\\pipe\\", "\\\\.\\PIP\\A",
                                 "\\.\\pipe\\A", "//./pipe/A", " \\\\.\\pipe\\A"}) {
    EXPECT_EQ(pipeSocketPath(name), "") << name;
  }
  for (const std::string name :
       {"..", ".", "A\\..\\B", "A\\\\B", "A\\", "\\A", "A/B", "../B", "A~"}) {
    EXPECT_EQ(pipeSocketPath("\\\\.\\pipe\\" + name), "") << name;
  }
  EXPECT_EQ(pipeSocketPath(std::string("\\\\.\\pipe\\A\0B", 12)), "");
}

}  // namespace

}  // namespace zelta::test
