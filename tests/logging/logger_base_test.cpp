// The virtual operations are called by slot, so their order is part of the interface.
#include "logging/logger_base.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "logging/file_logger_windows.h"

namespace zelta::logging {
namespace {

using ByReference = void (LoggerBase::*)(const std::string&, Level, const std::int32_t&);
using ByValue = void (LoggerBase::*)(const std::string&, std::int32_t, std::int32_t);

// A pointer to a virtual member function holds its offset in the table of functions. Some
// processors mark it by the lowest bit.
template <typename Member>
std::size_t slotOf(Member member) {
  std::ptrdiff_t offset = 0;
  std::memcpy(&offset, &member, sizeof(offset));
  return static_cast<std::size_t>(offset & ~static_cast<std::ptrdiff_t>(1)) / sizeof(void*);
}

// This compiler's destructor has two entries.
constexpr std::size_t kDestructorEntries = 2;

TEST(LoggerBase, VirtualOperations_FollowTheDestructorInOrder) {
  EXPECT_EQ(slotOf(&LoggerBase::createChildForSession), kDestructorEntries);
  EXPECT_EQ(slotOf(&LoggerBase::createChildForCategory), kDestructorEntries + 1);
  EXPECT_EQ(slotOf(static_cast<ByReference>(&LoggerBase::log)), kDestructorEntries + 2);
  EXPECT_EQ(slotOf(static_cast<ByValue>(&LoggerBase::log)), kDestructorEntries + 3);
  EXPECT_EQ(slotOf(&LoggerBase::writeLine), kDestructorEntries + 4);
  EXPECT_EQ(slotOf(&FileLogger::createChildForSession), kDestructorEntries);
  EXPECT_EQ(slotOf(&FileLogger::writeLine), kDestructorEntries + 4);
  EXPECT_EQ(slotOf(&FileLoggerWindows::writeLine), kDestructorEntries + 4);
}

// Records the calls of the operation that takes the code by value.
class Probe : public LoggerBase {
 public:
  Probe() : LoggerBase(4) {}
  std::unique_ptr<FileLogger> createChildForSession(const std::string&) override { return {}; }
  std::unique_ptr<FileLogger> createChildForCategory(std::uint32_t) override { return {}; }
  using LoggerBase::log;
  void log(const std::string&, Level, const std::int32_t&) override { ADD_FAILURE(); }
  void log(const std::string& message, std::int32_t level, std::int32_t code) override {
    reached += std::to_string(level) + " " + std::to_string(code) + " " + message + ";";
  }
  void writeLine(const std::string&, std::uint32_t, std::int32_t, std::int32_t,
                 const std::string&) override {
    ADD_FAILURE();
  }

  std::string reached;
};

TEST(LoggerBase, FilteredLog_CallsTheOperationThatTakesTheCodeByValue) {
  Probe logger;
  logger.log(4, -5, "text");
  logger.log(5, 0, "dropped");
  EXPECT_EQ(logger.reached, "4 -5 text;");
}

TEST(StringFormatter, AnyMessage_StaysAsItIs) {
  EXPECT_EQ(StringFormatter().format("{} %s \n \xFF"), "{} %s \n \xFF");
}

}  // namespace
}  // namespace zelta::logging
