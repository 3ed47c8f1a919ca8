// The program as a user runs it.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>

#include "tests/support/temp_folder.h"
#include "tests/tools/log_lines.h"

namespace zelta::logs {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

struct Outcome {
  int code = -1;
  std::string text;  // standard output and standard error
};

Outcome runCommand(const std::string& command) {
  Outcome outcome;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  std::array<char, 4096> buffer;
  for (std::size_t size; (size = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    outcome.text.append(buffer.data(), size);
  }
  outcome.code = WEXITSTATUS(pclose(pipe));
  return outcome;
}

Outcome run(const std::string& arguments) { return runCommand(ZELTA_LOGS_PROGRAM " " + arguments); }

class LogsProgram : public ::testing::Test {
 protected:
  LogsProgram() {
    std::ofstream(folder_.path() / "zelta_vsc_2024_03_05T14_07_09_042Z.txt")
        << test::kHeader << '\n'
        << test::kInfo << '\n'
        << test::kError << '\n';
    std::ofstream(newest()) << test::kHeader << '\n' << test::kDebug << '\n';
  }
  std::filesystem::path newest() const {
    return folder_.path() / "zelta_vsc_2024_03_05T14_08_00_000Z.txt";
  }
  std::string dir() const { return "--no-follow --dir " + folder_.path().string() + " "; }

  test::TempFolder folder_;
};

TEST_F(LogsProgram, Piped_ShowsTheNewestFilePlain) {
  const Outcome outcome = run(dir());
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.text, std::string(test::kHeader) + "\n" + test::kDebug + "\n");
}

TEST_F(LogsProgram, All_ReadsRotatedFilesInOrder) {
  EXPECT_EQ(run(dir() + "--all").text, std::string(test::kHeader) + "\n" + test::kInfo + "\n" +
                                           test::kError + "\n" + test::kDebug + "\n");
}

TEST_F(LogsProgram, SeveralFilters_Combine) {
  const std::string text = run(dir() + "--all --level error --tag GATT --session a1").text;
  EXPECT_THAT(text, HasSubstr(test::kError));
  EXPECT_THAT(text, Not(HasSubstr(test::kInfo)));
  EXPECT_THAT(run(dir() + "--since 2024-03-05T14:08").text, Not(HasSubstr(test::kError)));
}

TEST_F(LogsProgram, ColorAlways_ColoursAPipe) {
  EXPECT_THAT(run(dir() + "--all --color always").text, HasSubstr("\x1b[31m["));
}

TEST_F(LogsProgram, OnATerminal_IsColouredUnlessNoColorIsSet) {
  // `script` gives its command a terminal of its own.
  const auto onTerminal = [this](const std::string& variable) {
    return runCommand(variable + " script -qec '" ZELTA_LOGS_PROGRAM " " + dir() +
                      "--all' /dev/null");
  };
  EXPECT_THAT(onTerminal("NO_COLOR=").text, HasSubstr("\x1b[31m["));
  EXPECT_THAT(onTerminal("NO_COLOR=1").text, Not(HasSubstr("\x1b[")));
}

TEST_F(LogsProgram, BadUse_IsRefusedWithCode2) {
  for (const char* option : {"--level loud", "--since yesterday", "--color blue", "--nonsense"}) {
    const Outcome outcome = run(dir() + option);
    EXPECT_EQ(outcome.code, 2) << option;
    EXPECT_FALSE(outcome.text.empty());
  }
}

TEST_F(LogsProgram, MissingOrEmptyFolder_IsAnError) {
  Outcome outcome = run("--dir " + folder_.file("none"));
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.text, HasSubstr("there is no folder"));
  std::filesystem::create_directory(folder_.path() / "empty");
  outcome = run("--no-follow --dir " + folder_.file("empty"));
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.text, HasSubstr("no log file"));
}

TEST_F(LogsProgram, HelpAndVersion_Succeed) {
  EXPECT_EQ(run("--help").code, 0);
  EXPECT_THAT(run("--version").text, HasSubstr("zelta-logs "));
}

TEST_F(LogsProgram, Following_GoesOnInANewFileAndEndsCleanlyOnInterrupt) {
  std::array<int, 2> out{};
  ASSERT_EQ(pipe(out.data()), 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(out[1], STDOUT_FILENO);
    execl(ZELTA_LOGS_PROGRAM, "zelta-logs", "--dir", folder_.path().c_str(), nullptr);
    _exit(127);
  }
  close(out[1]);
  FILE* lines = fdopen(out[0], "r");
  std::array<char, 512> line{};
  const auto next = [&] {
    return std::string(fgets(line.data(), static_cast<int>(line.size()), lines) ? line.data() : "");
  };
  EXPECT_EQ(next(), std::string(test::kHeader) + "\n");
  EXPECT_EQ(next(), std::string(test::kDebug) + "\n");
  std::ofstream(newest(), std::ios::app) << test::kInfo << '\n' << std::flush;
  EXPECT_EQ(next(), std::string(test::kInfo) + "\n");
  std::ofstream(folder_.path() / "zelta_vsc_2024_03_06T00_00_00_000Z.txt") << test::kHeader << '\n'
                                                                           << test::kError << '\n'
                                                                           << std::flush;
  EXPECT_EQ(next(), std::string(test::kError) + "\n");
  kill(child, SIGINT);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  fclose(lines);
}

}  // namespace
}  // namespace zelta::logs
