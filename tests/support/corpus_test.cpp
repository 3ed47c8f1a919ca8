// Plays a fuzzer's corpus and findings. Linked with the fuzzer, whose rules end the process or fail
// the test.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace zelta::test {
namespace {

TEST(ZELTA_CORPUS_NAME, EveryInput_KeepsTheFuzzersRules) {
  int played = 0;
  for (const auto& entry : std::filesystem::directory_iterator(ZELTA_CORPUS_FOLDER)) {
    // The last name printed is that of the input that ended the process.
    (void)std::fprintf(stderr, "%s\n", entry.path().string().c_str());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    EXPECT_EQ(LLVMFuzzerTestOneInput(data, bytes.size()), 0) << entry.path();
    ++played;
  }
  EXPECT_GE(played, ZELTA_CORPUS_INPUTS);
}

}  // namespace
}  // namespace zelta::test
