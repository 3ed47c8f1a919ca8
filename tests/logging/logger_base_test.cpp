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

// Notes which operation was reached.
class Probe : public LoggerBase {
 public:
  explicit Probe(std::string* reached) : LoggerBase(4), reached_(reached) {}
  ~Probe() override { *reached_ += "0"; }
  std::unique_ptr<FileLogger> createChildForSession(const std::string&) override {
    *reached_ += "1";
    return nullptr;
  }
  std::unique_ptr<FileLogger> createChildForCategory(std::uint32_t) override {
    *reached_ += "2";
    return nullptr;
  }
  using LoggerBase::log;
  void log(const std::string&, Level, const std::int32_t&) override { *reached_ += "3"; }
  void log(const std::string&, std::int32_t, std::int32_t) override { *reached_ += "4"; }
  void writeLine(const std::string&, std::uint32_t, std::int32_t, std::int32_t,
                 const std::string&) override {
    *reached_ += "5";
  }

 private:
  std::string* reached_;
};

TEST(LoggerBase, CallThroughTheBase_ReachesItsOperation) {
  std::string reached;
  std::unique_ptr<LoggerBase> logger = std::make_unique<Probe>(&reached);
  const std::int32_t code = 0;
  logger->createChildForSession("id");
  logger->createChildForCategory(0);
  logger->log("text", Level::kInfo, code);
  logger->log("text", 2, 0);
  logger->writeLine("text", 0, 2, 0, "id");
  logger.reset();
  EXPECT_EQ(reached, "123450");
}

TEST(LoggerBase, FilteredLog_CallsTheOperationThatTakesTheCodeByValue) {
  std::string reached;
  Probe logger(&reached);
  logger.log(4, 0, "text");
  logger.log(5, 0, "dropped");
  EXPECT_EQ(reached, "4");
}

TEST(StringFormatter, AnyMessage_StaysAsItIs) {
  EXPECT_EQ(StringFormatter().format("{} %s \n \xFF"), "{} %s \n \xFF");
}

}  // namespace
}  // namespace zelta::logging
