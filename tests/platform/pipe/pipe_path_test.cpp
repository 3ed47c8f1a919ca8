#include "platform/pipe/pipe_path.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace {

using platform::pipeSocketPath;

constexpr char kRoot[] = "ZELTA_PIPE_ROOT";

TEST(PipePathTest, BackslashesBecomeFoldersBelowTheRoot) {
  const ScopedVariable root(kRoot, "/some/root");
  EXPECT_EQ(pipeSocketPath("\\\\.\\pipe\\A\\B"), "/some/root/A/B");
  EXPECT_EQ(pipeSocketPath("\\\\.\\pipe\\A"), "/some/root/A");
}

TEST(PipePathTest, EmptyVariableMeansTheDefaultRoot) {
  const ScopedVariable root(kRoot, "");
  EXPECT_EQ(pipeSocketPath("\\\\.\\pipe\\ProtectedPrefix\\LocalService\\zelta_smartcard_command0"),
            "/run/zelta/pipe/ProtectedPrefix/LocalService/zelta_smartcard_command0");
}

TEST(PipePathTest, UnsetVariableMeansTheDefaultRoot) {
  const ScopedVariable restored(kRoot, "x");
  ASSERT_EQ(unsetenv(kRoot), 0);
  EXPECT_EQ(pipeSocketPath("\\\\.\\pipe\\A"), "/run/zelta/pipe/A");
}

TEST(PipePathTest, NamesThatAreNotPipesHaveNoPath) {
  for (const char* name : {"", "A", "\\\\.\\pipe", "\\\\.\\pipe\\", "\\\\.\\PIP\\A", "\\.\\pipe\\A",
                           "//./pipe/A", " \\\\.\\pipe\\A"}) {
    EXPECT_EQ(pipeSocketPath(name), "") << name;
  }
}

TEST(PipePathTest, NamesThatWouldReachAnotherFileHaveNoPath) {
  for (const std::string name :
       {"\\\\.\\pipe\\..", "\\\\.\\pipe\\.", "\\\\.\\pipe\\A\\..\\B", "\\\\.\\pipe\\A\\\\B",
        "\\\\.\\pipe\\A\\", "\\\\.\\pipe\\\\A", "\\\\.\\pipe\\A/B", "\\\\.\\pipe\\../B"}) {
    EXPECT_EQ(pipeSocketPath(name), "") << name;
  }
  EXPECT_EQ(pipeSocketPath(std::string("\\\\.\\pipe\\A\0B", 12)), "");
}

TEST(PipePathTest, NamesOfSocketsThatAreNotReadyHaveNoPath) {
  EXPECT_EQ(pipeSocketPath("\\\\.\\pipe\\A~"), "");
  EXPECT_NE(pipeSocketPath("\\\\.\\pipe\\A~\\B"), "");
}

}  // namespace

}  // namespace zelta::test
