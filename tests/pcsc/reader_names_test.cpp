#include "pcsc/reader_names.h"

#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

namespace zelta::pcsc {
namespace {

TEST(ReaderNamesTest, IndexIsTheNumberAfterTheLastColon) {
  EXPECT_EQ(readerIndexOf("zelta:0"), 0u);
  EXPECT_EQ(readerIndexOf("zelta:12"), 12u);
  EXPECT_EQ(readerIndexOf("zelta:007"), 7u);
  EXPECT_EQ(readerIndexOf("a:b:3"), 3u);
  EXPECT_EQ(readerIndexOf("zelta:4294967295"), 4294967295u);
}

TEST(ReaderNamesTest, NameWithoutAColonIsTheFirstReader) {
  EXPECT_EQ(readerIndexOf("/dev/null"), 0u);
  EXPECT_EQ(readerIndexOf(""), 0u);
}

TEST(ReaderNamesTest, AnythingElseAfterTheColonIsNoReader) {
  for (const char* name : {"zelta:", "zelta:x", "zelta:-1", "zelta:+1", "zelta: 1", "zelta:1 ",
                           "zelta:1x", "zelta:4294967296", "zelta:99999999999999999999"}) {
    EXPECT_EQ(readerIndexOf(name), std::nullopt) << name;
  }
}

TEST(ReaderNamesTest, InterfaceIsNamedDevAndTheIndex) {
  EXPECT_EQ(interfaceName(0), L"dev0");
  EXPECT_EQ(interfaceName(4294967295u), L"dev4294967295");
  EXPECT_EQ(readerName(12), "dev12");
}

TEST(ReaderNamesTest, ModuleIsWhatTheVariableNames) {
  const test::ScopedVariable named("ZELTA_MODULE", "/some/where/module.so");
  EXPECT_EQ(modulePath(), "/some/where/module.so");
}

TEST(ReaderNamesTest, ModuleIsInTheOwnFolderWhereTheVariableIsEmpty) {
  const test::ScopedVariable named("ZELTA_MODULE", "");
  const std::string path = modulePath();
  const std::string file = "libzelta_vsc.so";
  ASSERT_GE(path.size(), file.size());
  EXPECT_EQ(path.substr(path.size() - file.size()), file);
}

}  // namespace
}  // namespace zelta::pcsc
