// The program as a user runs it.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>

#include "tests/support/temp_folder.h"
#include "tests/tools/log_lines.h"

namespace zelta::logs {
namespace {

using ::testing::AllOf;
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
  EXPECT_THAT(onTerminal("NO_COLOR=").text, HasSubstr("\x1b[31m14:07"));
  EXPECT_THAT(onTerminal("NO_COLOR=1").text, Not(HasSubstr("\x1b[")));
}

TEST_F(LogsProgram, View_IsCompactOnATerminalUnlessAnotherIsAskedFor) {
  const auto onTerminal = [this](const std::string& option) {
    const Outcome outcome = runCommand("script -qec '" ZELTA_LOGS_PROGRAM " " + dir() +
                                       "--all --color never " + option + "' /dev/null");
    return std::regex_replace(outcome.text, std::regex("\r"), "");
  };
  const std::string compact = onTerminal("");
  EXPECT_THAT(compact, HasSubstr("14:07:09.042 INFO                 [TRSM]IOCTL_SMARTCARD"));
  EXPECT_EQ(run(dir() + "--all --view compact").text, compact);
  EXPECT_EQ(run(dir() + "--all").text, onTerminal("--view full"));
  EXPECT_THAT(onTerminal("--json"), HasSubstr(R"("tag":"TRSM")"));
}

TEST_F(LogsProgram, Tag_IsFoundWithAndWithoutBrackets) {
  const std::string bare = run(dir() + "--all --tag TRSM").text;
  EXPECT_THAT(bare, AllOf(HasSubstr(test::kInfo), Not(HasSubstr(test::kError))));
  EXPECT_EQ(run(dir() + "--all --tag '[TRSM]'").text, bare);
}

TEST_F(LogsProgram, Json_NamesTheFileOfEachRecord) {
  EXPECT_THAT(run(dir() + "--all --json --level error").text,
              AllOf(HasSubstr(R"("code":-1073741448)"),
                    HasSubstr(R"("file":"zelta_vsc_2024_03_05T14_07_09_042Z.txt"})")));
}

TEST_F(LogsProgram, OnATerminal_ControlCharactersAreEscapedWithoutColours) {
  std::ofstream(newest(), std::ios::app) << test::kInfo << "\x1b[31m\n";
  const std::string command =
      "script -qec '" ZELTA_LOGS_PROGRAM " " + dir() + "--color never' /dev/null";
  EXPECT_THAT(runCommand(command).text, AllOf(HasSubstr("\\x1b[31m"), Not(HasSubstr("\x1b["))));
  EXPECT_THAT(run(dir() + "--color never").text, HasSubstr("\x1b[31m"));
}

TEST_F(LogsProgram, PinInADump_IsHiddenUnlessItIsAskedFor) {
  const std::string columns =
      std::string(test::kDebug).substr(0, std::string(test::kDebug).find("Start section"));
  std::ofstream(newest(), std::ios::app) << columns << "9 byte dump:\n"
                                         << columns << "00 20 00 81 04 31 32 33 34 \n";
  EXPECT_THAT(run(dir()).text,
              AllOf(HasSubstr("00 20 00 81 04 .. .. .. .. \n"), Not(HasSubstr("31 32"))));
  EXPECT_THAT(run(dir() + "--show-secrets").text, HasSubstr("00 20 00 81 04 31 32 33 34 \n"));
}

class PruneProgram : public LogsProgram {
 protected:
  PruneProgram() {
    for (const char* name : {"zelta_vsc_2024_01_01T00_00_00_000Z.txt", "another.txt"}) {
      std::ofstream(folder_.path() / name) << std::string(2048, 'x');
      std::filesystem::last_write_time(
          folder_.path() / name,
          std::filesystem::file_time_type::clock::now() - std::chrono::hours(25));
    }
  }
  Outcome prune(const std::string& arguments) {
    return run("prune --dir " + folder_.path().string() + " " + arguments);
  }
  std::size_t count() const {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(folder_.path()), {}));
  }
  std::string path(const std::string& name) const { return (folder_.path() / name).string(); }

  const std::string oldest_ = path("zelta_vsc_2024_01_01T00_00_00_000Z.txt");
  const std::string middle_ = path("zelta_vsc_2024_03_05T14_07_09_042Z.txt");
};

TEST_F(PruneProgram, EachLimit_RemovesTheOldestLogFiles) {
  for (const char* limit : {"--keep 2", "--max-age 1d", "--max-age 24h", "--max-size 2K"}) {
    const Outcome dry = prune(limit + std::string(" --dry-run"));
    EXPECT_EQ(dry.code, 0);
    EXPECT_EQ(dry.text, "would remove " + oldest_ + "\n") << limit;
    EXPECT_EQ(count(), 4u);
  }
  const Outcome quiet = prune("--keep 3 --max-age 1d --max-size 1G");
  EXPECT_EQ(quiet.code, 0);
  EXPECT_EQ(quiet.text, "");
  EXPECT_FALSE(std::filesystem::exists(oldest_));
  EXPECT_EQ(prune("--keep 1 --verbose").text, "removed " + middle_ + "\n");
  EXPECT_EQ(prune("--keep 1 --max-size 1").text, "");
  EXPECT_EQ(count(), 2u) << "the newest log file and one that is none";
}

TEST_F(PruneProgram, FileThatIsBeingWritten_Stays) {
  const std::ofstream writer(oldest_, std::ios::app);
  const Outcome outcome = prune("--keep 1 --verbose");
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.text, "kept " + oldest_ + ", it is in use\nremoved " + middle_ + "\n");
  EXPECT_TRUE(std::filesystem::exists(oldest_));
}

TEST_F(PruneProgram, LinkWithALogFilesName_StaysWithItsTarget) {
  std::filesystem::create_symlink("another.txt", path("zelta_vsc_2023_01_01T00_00_00_000Z.txt"));
  EXPECT_EQ(prune("--keep 1 --verbose").text, "removed " + oldest_ + "\nremoved " + middle_ + "\n");
  EXPECT_EQ(count(), 3u);
}

TEST_F(PruneProgram, NameThatATerminalWouldObey_IsEscaped) {
  const std::string name = path("zelta_vsc_2023\x1b[2J\nremoved.txt");
  std::ofstream(name) << "x";
  const std::string shown = path("zelta_vsc_2023\\x1b[2J\\x0aremoved.txt");
  EXPECT_EQ(prune("--keep 3 --dry-run").text, "would remove " + shown + "\n");
  {
    const std::ofstream writer(name, std::ios::app);
    EXPECT_EQ(prune("--keep 3 --verbose").text, "kept " + shown + ", it is in use\n");
  }
  EXPECT_EQ(prune("--keep 3 --verbose").text, "removed " + shown + "\n");
  EXPECT_THAT(run("prune --keep 1 --dir '" + path("\x1b[2J") + "'").text,
              HasSubstr("cannot read " + path("\\x1b[2J")));
}

TEST_F(LogsProgram, FolderThatATerminalWouldObey_IsEscaped) {
  EXPECT_THAT(run("--dir '" + folder_.file("\x1b[2J") + "'").text,
              HasSubstr("there is no folder " + folder_.file("\\x1b[2J")));
}

TEST_F(PruneProgram, Nonsense_IsRefusedWithCode2AndRemovesNothing) {
  for (const char* options :
       {"", "--keep 0", "--keep -1", "--keep many", "--keep 1.5", "--max-age 30", "--max-age 0d",
        "--max-age -1d", "--max-age 30x", "--max-age ''", "--max-size 0", "--max-size 1T",
        "--max-size M", "--keep 1 --nonsense", "--keep 1 file"}) {
    const Outcome outcome = prune(options);
    EXPECT_EQ(outcome.code, 2) << options;
    EXPECT_FALSE(outcome.text.empty()) << options;
  }
  EXPECT_THAT(prune("").text, HasSubstr("--keep, --max-age or --max-size"));
  EXPECT_THAT(prune("--max-age 30x").text, HasSubstr("'30x' is not a limit such as 30d, 12h"));
  EXPECT_EQ(count(), 4u);
}

TEST_F(PruneProgram, MissingFolder_IsAnError) {
  const Outcome outcome = run("prune --keep 1 --dir " + folder_.file("none"));
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.text, HasSubstr("cannot read " + folder_.file("none")));
}

TEST_F(LogsProgram, BadUse_IsRefusedWithCode2) {
  for (const char* option : {"--level loud", "--since yesterday", "--color blue", "--view wide",
                             "--view full --json", "--nonsense"}) {
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
  // Another process's file, and one that was removed and made again.
  std::ofstream(newest(), std::ios::app) << test::kDebug << '\n' << std::flush;
  EXPECT_EQ(next(), std::string(test::kDebug) + "\n");
  std::filesystem::remove(newest());
  std::ofstream(newest()) << test::kHeader << '\n' << test::kInfo << '\n' << std::flush;
  EXPECT_EQ(next(), std::string(test::kInfo) + "\n");
  kill(child, SIGINT);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  (void)fclose(lines);
}

}  // namespace
}  // namespace zelta::logs
