#include "tests/support/freed_memory.h"

#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

#include "platform/process/wipe.h"

namespace zelta::test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Threads = FreedMemoryWatch::Threads;

Bytes command() {
  Bytes bytes = {0x00, 0x20, 0x00, 0x80, kSecret.size()};
  bytes.insert(bytes.end(), kSecret.begin(), kSecret.end());
  return bytes;
}

TEST(FreedMemory, SecretThatIsNotWiped_IsFound) {
  auto bytes = command();
  const FreedMemoryWatch watch(Threads::kOwn);
  Bytes().swap(bytes);
  EXPECT_EQ(watch.found(), 1);
}

TEST(FreedMemory, WipedMemory_HasNone) {
  auto bytes = command();
  const FreedMemoryWatch watch(Threads::kOwn);
  platform::wipe(bytes.data(), bytes.size());
  Bytes().swap(bytes);
  EXPECT_EQ(watch.found(), 0);
  EXPECT_EQ(watch.freed(), 1);
}

TEST(FreedMemory, OtherThreads_AreToldFromTheOwn) {
  auto bytes = command();
  const FreedMemoryWatch watch(Threads::kOthers);
  {
    Bytes own = bytes;
    own.push_back(0);  // which moves it to another place
  }
  EXPECT_EQ(watch.found(), 0);
  std::thread([&] { Bytes().swap(bytes); }).join();
  EXPECT_EQ(watch.found(), 1);
}

TEST(SecretBytes, CopiedMovedAndReplaced_LeaveNothingBehind) {
  platform::SecretBytes first(command());
  const FreedMemoryWatch watch(Threads::kOwn);
  {
    platform::SecretBytes copy(first);
    platform::SecretBytes moved(std::move(copy));
    EXPECT_EQ(moved.get(), first.get());
    EXPECT_EQ(copy.size(), 0u);  // NOLINT: what moving leaves is what is tested
    copy = moved;
    moved = platform::SecretBytes(Bytes{1, 2, 3});
    EXPECT_EQ(copy.get(), first.get());
  }
  first = platform::SecretBytes();
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GE(watch.freed(), 3);
}

TEST(SecretQueue, GrownAndTakenFromTheFront_LeavesNothingBehind) {
  const platform::SecretBytes bytes(command());
  Bytes twice = bytes.get();
  twice.insert(twice.end(), bytes.get().begin(), bytes.get().end());
  const FreedMemoryWatch watch(Threads::kOwn);
  {
    platform::SecretQueue queue;
    for (int i = 0; i < 3; ++i) queue.append(bytes.get());
    queue.drop(bytes.size());
    EXPECT_EQ(queue.get(), twice);
    queue.drop(bytes.size() + 1);  // the rest has been moved
    EXPECT_EQ(queue.size(), bytes.size() - 1);
    queue.drop(queue.size());
    EXPECT_EQ(queue.size(), 0u);
  }
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GE(watch.freed(), 2);
}

}  // namespace
}  // namespace zelta::test
