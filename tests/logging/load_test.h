// What the tests of the logger under load share.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "logging/zelta_logging.h"
#include "tests/support/log_files.h"
#include "tests/support/own_registry.h"
#include "tests/support/temp_folder.h"

namespace zelta::logging {

// On the real clock, and a registry in which nothing is: each logger begins with one Error record.
class LoadTest : public ::testing::Test {
 protected:
  static constexpr int kThreads = 16;
  static constexpr int kLines = 500;

  LoadTest() { std::filesystem::create_directory(logs()); }

  std::filesystem::path logs() const { return folder_.path() / "logs"; }
  std::unique_ptr<FileLoggerWindows> makeLogger() const {
    return std::make_unique<FileLoggerWindows>(0, 2, "0f8fad5b-d9cb-469f-a165-70867728950e",
                                               folder_.file("logs/tool"), 0);
  }

  // From `kThreads` threads `kLines` lines each.
  static void logFromManyThreads(LoggerBase& logger, const std::string& name) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&logger, name, i] {
        const std::string label = name + std::to_string(i) + "/";
        for (int line = 0; line < kLines; ++line) logger.log(2, 0, label + std::to_string(line));
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  void expectAllLines(std::size_t labels) const {
    std::vector<std::string> messages;
    for (const test::LogLine& record : test::recordsIn(logs())) {
      if (record.level != "<ERROR>") messages.push_back(record.message);
    }
    test::expectNumberedMessages(messages, labels, kLines);
  }

  const test::TempFolder folder_;
  test::OwnRegistry registry_;
};

}  // namespace zelta::logging
