#include "agent/program/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>

#include "agent/version.h"
#include "tests/support/case_names.h"

namespace zelta::agent {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

ParsedOptions parse(std::vector<const char*> arguments, System system = System::kLinux) {
  arguments.insert(arguments.begin(), "zelta-agent");
  return parseOptions(static_cast<int>(arguments.size()), arguments.data(),
                      {system, "What ends it."});
}

Options taken(const std::vector<const char*>& arguments) {
  const ParsedOptions parsed = parse(arguments);
  EXPECT_TRUE(parsed.options) << parsed.error;
  return parsed.options.value_or(Options());
}

TEST(Options, None_MeansTheEmulatedCardOfReaderZero) {
  const Options options = taken({});
  EXPECT_EQ(options.action, Options::Action::kRun);
  EXPECT_EQ(options.reader, 0u);
  EXPECT_EQ(options.backend, BackendKind::kEmulated);
  EXPECT_EQ(options.database, "/var/lib/zelta/card");
  EXPECT_EQ(options.control, "");
  EXPECT_EQ(options.sessionId, "");
  EXPECT_FALSE(options.cardIn);
  EXPECT_FALSE(options.pin);
  EXPECT_EQ(options.logLevel, Severity::kInfo);
}

TEST(Options, EmulatedCard_TakesAllOfItsOptions) {
  const Options options =
      taken({"--reader", "4294967295", "--control", "/c", "--session-id",
             "01234567-89ab-cdef-0123-456789abcdef", "--backend", "emulated", "--no-card", "--db",
             "/d", "--pin", "", "--cert", "a", "--cert", "b", "--log-level", "warning"});
  EXPECT_EQ(options.reader, 4294967295u);
  EXPECT_EQ(options.control, "/c");
  EXPECT_EQ(options.sessionId, "01234567-89ab-cdef-0123-456789abcdef");
  EXPECT_EQ(options.cardIn, false);
  EXPECT_EQ(options.database, "/d");
  EXPECT_EQ(options.pin, "");
  EXPECT_THAT(options.certificates, testing::ElementsAre("a", "b"));
  EXPECT_EQ(options.logLevel, Severity::kWarning);
}

TEST(Options, Record_IsForEveryBackEnd) {
  EXPECT_EQ(taken({}).recordFile, "");
  EXPECT_EQ(taken({"--record", "r"}).recordFile, "r");
  EXPECT_EQ(taken({"--backend", "script", "--script", "f", "--record", "r"}).recordFile, "r");
}

TEST(Options, OtherBackEnds_TakeTheirOptions) {
  const Options script = taken({"--backend", "script", "--script", "f", "--card-inserted"});
  EXPECT_EQ(script.backend, BackendKind::kScript);
  EXPECT_EQ(script.scriptFile, "f");
  EXPECT_EQ(script.cardIn, true);
  const Options pcsc = taken({"--backend", "pcsc", "--pcsc-reader", "A Reader 00 00"});
  EXPECT_EQ(pcsc.backend, BackendKind::kPcsc);
  EXPECT_EQ(pcsc.pcscReader, "A Reader 00 00");
}

TEST(Options, DriverAtAnotherMachine_IsTakenApart) {
  EXPECT_FALSE(taken({}).to);
  const Options options = taken({"--to", "ssh://me@host:22/3", "--ssh", "/my/ssh"});
  ASSERT_TRUE(options.to);
  EXPECT_EQ(options.to->place(), "me@host");
  EXPECT_EQ(options.to->port, "22");
  EXPECT_EQ(options.to->reader, 3u);
  EXPECT_EQ(options.ssh, "/my/ssh");
  EXPECT_EQ(taken({"--backend", "remote"}).backend, BackendKind::kRemote);
}

TEST(Options, LogLevels_AreTakenByNameAndByFlag) {
  EXPECT_EQ(taken({"--quiet"}).logLevel, Severity::kError);
  EXPECT_EQ(taken({"-q"}).logLevel, Severity::kError);
  EXPECT_EQ(taken({"-v"}).logLevel, Severity::kDebug);
  EXPECT_EQ(taken({"--verbose"}).logLevel, Severity::kDebug);
  EXPECT_EQ(taken({"--log-level", "error"}).logLevel, Severity::kError);
  EXPECT_EQ(taken({"--log-level", "info"}).logLevel, Severity::kInfo);
  EXPECT_EQ(taken({"--log-level", "debug"}).logLevel, Severity::kDebug);
}

TEST(Options, Ctl_TakesItsAgentsPlaceBeforeAndAfter) {
  EXPECT_EQ(taken({"ctl", "insert"}).action, Options::Action::kCtlInsert);
  EXPECT_EQ(taken({"ctl", "remove", "--reader", "2"}).reader, 2u);
  const Options status = taken({"--control", "/c", "ctl", "status", "--json"});
  EXPECT_EQ(status.action, Options::Action::kCtlStatus);
  EXPECT_EQ(status.control, "/c");
  EXPECT_TRUE(status.json);
}

TEST(Options, HelpAndVersion_EndWithSuccess) {
  const ParsedOptions help = parse({"--help"});
  EXPECT_FALSE(help.options);
  EXPECT_EQ(help.exitCode, kExitDone);
  EXPECT_EQ(help.error, "");
  for (const char* option :
       {"--reader",    "--control", "--session-id",  "--backend", "--card-inserted", "--no-card",
        "--db",        "--pin",     "--pin-file",    "--cert",    "--pcsc-reader",   "--script",
        "--log-level", "--quiet",   "--verbose",     "--to",      "--ssh",           "--version",
        "--help",      "ctl",       "What ends it.", "Exit codes"}) {
    EXPECT_THAT(help.output, HasSubstr(option));
  }
  const ParsedOptions version = parse({"-V"});
  EXPECT_EQ(version.exitCode, kExitDone);
  EXPECT_EQ(version.output, std::string("zelta-agent ") + kVersion + "\n");
}

struct Wrong {
  std::vector<const char*> arguments;
  const char* message;
};

void PrintTo(const Wrong& wrong, std::ostream* out) { *out << wrong.message; }

class WrongOptions : public testing::TestWithParam<Wrong> {};

TEST_P(WrongOptions, AreRefusedWithTheUsageExitCode) {
  const ParsedOptions parsed = parse(GetParam().arguments);
  EXPECT_FALSE(parsed.options);
  EXPECT_EQ(parsed.exitCode, kExitUsage);
  EXPECT_THAT(parsed.error, HasSubstr(GetParam().message));
  EXPECT_EQ(parsed.output, "");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WrongOptions,
    testing::Values(
        Wrong{{"--nonsense"}, "--nonsense"}, Wrong{{"extra"}, "extra"},
        Wrong{{"--reader", "-1"}, "-1"}, Wrong{{"--reader", "4294967296"}, "4294967296"},
        Wrong{{"--reader", "x"}, "x"}, Wrong{{"--session-id", "x"}, "'x' is not a GUID"},
        Wrong{{"--backend", "paper"}, "paper is none of emulated|pcsc|script|remote"},
        Wrong{{"--log-level", "loud"}, "loud not in {error,warning,info,debug}"},
        Wrong{{"--card-inserted", "--no-card"}, "--card-inserted excludes --no-card"},
        Wrong{{"--pin", "1", "--pin-file", "f"}, "excludes"},
        Wrong{{"--quiet", "--verbose"}, "excludes"}, Wrong{{"--cert", "a", "b"}, "b"},
        Wrong{{"--backend", "script"}, "--backend script needs --script FILE"},
        Wrong{{"--script", "f"}, "--script needs --backend script"},
        Wrong{{"--backend", "pcsc"}, "--backend pcsc needs --pcsc-reader NAME"},
        Wrong{{"--pcsc-reader", "r"}, "--pcsc-reader needs --backend pcsc"},
        Wrong{{"--backend", "pcsc", "--pcsc-reader", "r", "--no-card"}, "not for a real card"},
        Wrong{{"--to", "host"}, "'host' is not ssh://[user@]host[:port][/reader]"},
        Wrong{{"--ssh", "s"}, "--ssh requires --to"},
        Wrong{{"--to", "ssh://h", "--backend", "remote"}, "--to needs a card here"},
        Wrong{{"--to", "ssh://h", "--reader", "2"}, "--reader is not for --to"},
        Wrong{{"--to", "ssh://h", "--session-id", "01234567-89ab-cdef-0123-456789abcdef"},
              "--session-id is not for --to"},
        Wrong{{"--backend", "remote", "--no-card"}, "not for a remote card"},
        Wrong{{"ctl"}, "ctl takes insert, remove or status"},
        Wrong{{"ctl", "jump"}, "ctl takes insert, remove or status"}),
    [](const auto& each) {
      std::string all;
      for (const char* argument : each.param.arguments) all += std::string(argument) + " ";
      return test::caseName(all);
    });

constexpr const char* kOptionsOfLinux[] = {"--db",   "--pin", "--pin-file",
                                           "--cert", "--to",  "--ssh"};

class OptionsOfLinux : public testing::TestWithParam<const char*> {
 protected:
  // Windows names the option, whatever else is wrong.
  static void refused(const std::vector<const char*>& arguments) {
    const ParsedOptions parsed = parse(arguments, System::kWindows);
    EXPECT_FALSE(parsed.options);
    EXPECT_EQ(parsed.exitCode, kExitUsage);
    EXPECT_EQ(parsed.output, "");
    EXPECT_EQ(parsed.error, std::string(GetParam()) +
                                " is not available on Windows\nRun with --help for more "
                                "information.\n");
  }
};

TEST_P(OptionsOfLinux, AreNamedAndRefusedOnWindows) {
  const std::vector<const char*> arguments = {"--backend", "script",   "--script",
                                              "f",         GetParam(), "value"};
  refused(arguments);
  EXPECT_THAT(parse(arguments).error, testing::Not(HasSubstr("Windows")));
  refused({GetParam()});
  refused({(GetParam() + std::string("=value")).c_str()});
  refused({GetParam(), "value"});
  refused({GetParam(), "value", "--pin", "1", "--pin-file", "f"});
  refused({"--backend", "paper", GetParam(), "value"});
  refused({GetParam(), "value", "--help"});
}

TEST_P(OptionsOfLinux, AreNamedAndRefusedInEveryCommandOnWindows) {
  refused({"ctl", "status", GetParam(), "value"});
  refused({"ctl", GetParam(), "value", "status"});
  refused({"ctl", GetParam()});
  for (const char* action : {"install", "remove", "run"}) {
    refused({"service", action, "--backend", "script", "--script", "f", GetParam(), "value"});
  }
}

INSTANTIATE_TEST_SUITE_P(Options, OptionsOfLinux, testing::ValuesIn(kOptionsOfLinux),
                         [](const auto& each) { return test::caseName(each.param); });

// The options that a help's lines begin with.
std::set<std::string> optionsIn(const std::string& help) {
  std::set<std::string> all;
  const std::regex line("(^|\n)  (?:-[A-Za-z],)?(--[a-z-]+)");
  for (std::sregex_iterator match(help.begin(), help.end(), line), end; match != end; ++match) {
    all.insert((*match)[2]);
  }
  return all;
}

TEST(WindowsOptions, Help_HasWhatIsNotOnlyForLinux) {
  const std::set<std::string> onWindows = optionsIn(parse({"--help"}, System::kWindows).output);
  std::set<std::string> all = optionsIn(parse({"--help"}).output);
  for (const char* option : kOptionsOfLinux) EXPECT_EQ(all.erase(option), 1u) << option;
  EXPECT_EQ(onWindows, all);
}

// Each line of the help, but for the help itself.
TEST(WindowsOptions, OptionsOfTheHelp_AreTaken) {
  const std::vector<const char*> kScript = {"--backend", "script", "--script", "f"};
  const std::vector<const char*> kPcsc = {"--backend", "pcsc", "--pcsc-reader", "r"};
  const struct {
    std::vector<const char*> card;
    std::vector<const char*> option;
  } kTaken[] = {{kScript, {}},
                {kPcsc, {}},
                {kScript, {"--reader", "1"}},
                {kScript, {"--control", "c"}},
                {kScript, {"--session-id", "01234567-89ab-cdef-0123-456789abcdef"}},
                {kScript, {"--card-inserted"}},
                {kScript, {"--no-card"}},
                {kScript, {"--record", "r"}},
                {kPcsc, {"--log-level", "debug"}},
                {kPcsc, {"--quiet"}},
                {kPcsc, {"--verbose"}}};
  std::set<std::string> tried = {"--help", "--version"};
  for (const auto& [card, option] : kTaken) {
    std::vector<const char*> arguments = card;
    arguments.insert(arguments.end(), option.begin(), option.end());
    const ParsedOptions parsed = parse(arguments, System::kWindows);
    EXPECT_TRUE(parsed.options) << parsed.error;
    for (const std::string word : arguments) {
      if (word.rfind("--", 0) == 0) tried.insert(word);
    }
  }
  EXPECT_EQ(optionsIn(parse({"--help"}, System::kWindows).output), tried);
}

class BackEndsOfLinux : public testing::TestWithParam<const char*> {};

TEST_P(BackEndsOfLinux, AreNamedAndRefusedOnWindows) {
  EXPECT_TRUE(parse({"--backend", GetParam()}).options);
  const ParsedOptions parsed = parse({"--backend", GetParam()}, System::kWindows);
  EXPECT_EQ(parsed.exitCode, kExitUsage);
  EXPECT_THAT(parsed.error,
              HasSubstr("--backend " + std::string(GetParam()) + " is not available on Windows\n"));
}

INSTANTIATE_TEST_SUITE_P(Options, BackEndsOfLinux, testing::Values("emulated", "remote"));

TEST(WindowsOptions, NoCard_IsAskedFor) {
  const ParsedOptions parsed = parse({}, System::kWindows);
  EXPECT_EQ(parsed.exitCode, kExitUsage);
  EXPECT_THAT(parsed.error, HasSubstr("which card? --backend needs one of pcsc|script\n"));
  EXPECT_THAT(parse({"--backend", "paper"}, System::kWindows).error,
              HasSubstr("paper is none of pcsc|script\n"));
  EXPECT_TRUE(parse({"ctl", "status"}, System::kWindows).options);
}

TEST(WindowsOptions, Help_HasItsCardsOnly) {
  const std::string help = parse({"--help"}, System::kWindows).output;
  EXPECT_THAT(help, HasSubstr(" pcsc|script "));
  EXPECT_THAT(help, HasSubstr("--control PIPE"));
  EXPECT_THAT(help, HasSubstr("--pcsc-reader"));
  EXPECT_THAT(help, testing::Not(HasSubstr("mulated")));
  EXPECT_THAT(help, testing::Not(HasSubstr("another machine")));
}

TEST(WindowsOptions, ItsCards_TakeTheirOptions) {
  EXPECT_TRUE(
      parse({"--backend", "script", "--script", "f", "--no-card", "-v"}, System::kWindows).options);
  const ParsedOptions real =
      parse({"--backend", "pcsc", "--pcsc-reader", "A Reader 0", "--record", "r", "--control", "c"},
            System::kWindows);
  ASSERT_TRUE(real.options) << real.error;
  EXPECT_EQ(real.options->pcscReader, "A Reader 0");
}

TEST(ServiceOptions, EveryAction_IsForWindowsOnly) {
  const struct {
    const char* name;
    Options::Action action;
  } kActions[] = {{"install", Options::Action::kServiceInstall},
                  {"remove", Options::Action::kServiceRemove},
                  {"run", Options::Action::kServiceRun}};
  for (const auto& [name, action] : kActions) {
    const std::vector<const char*> arguments = {"service", name,       "--backend",
                                                "script",  "--script", "f"};
    const ParsedOptions parsed = parse(arguments, System::kWindows);
    ASSERT_TRUE(parsed.options) << parsed.error;
    EXPECT_EQ(parsed.options->action, action);
    EXPECT_EQ(parsed.options->scriptFile, "f");
    EXPECT_EQ(parse(arguments).exitCode, kExitUsage);
    EXPECT_THAT(parse(arguments).error, HasSubstr("service is not available on Linux\n"));
  }
  for (const std::vector<const char*>& arguments :
       {std::vector<const char*>{"service"}, {"service", "jump"}, {"service", "--help"}}) {
    EXPECT_EQ(parse(arguments).exitCode, kExitUsage);
    EXPECT_THAT(parse(arguments).error, StartsWith("service is not available on Linux\n"));
  }
  EXPECT_THAT(parse({"--help"}, System::kWindows).output, HasSubstr("\n  service "));
  EXPECT_THAT(parse({"--help"}).output, testing::Not(HasSubstr("\n  service ")));
}

TEST(ServiceOptions, InstalledAndRunServices_NeedACard) {
  for (const char* action : {"install", "run"}) {
    EXPECT_THAT(parse({"service", action}, System::kWindows).error, HasSubstr("which card?"));
  }
  EXPECT_TRUE(parse({"service", "remove", "--reader", "3"}, System::kWindows).options);
}

TEST(ServiceOptions, ArgumentsOfOptions_AreParsedIntoTheSame) {
  const std::vector<const char*> all[] = {
      {"--backend", "pcsc", "--pcsc-reader", "-A Reader= 0", "--log-level", "debug"},
      {"--backend", "script", "--script", "/f", "--no-card", "--reader", "7", "--control", "c",
       "--session-id", "01234567-89ab-cdef-0123-456789abcdef", "--record", "/r", "-q"},
      {"--backend", "script", "--script", "/f", "--card-inserted"}};
  for (const std::vector<const char*>& given : all) {
    const ParsedOptions first = parse(given, System::kWindows);
    ASSERT_TRUE(first.options) << first.error;
    const std::vector<std::string> words = argumentsOf(*first.options);
    std::vector<const char*> again(words.size());
    std::transform(words.begin(), words.end(), again.begin(),
                   [](const std::string& word) { return word.c_str(); });
    const ParsedOptions second = parse(again, System::kWindows);
    ASSERT_TRUE(second.options) << second.error;
    EXPECT_EQ(argumentsOf(*second.options), words);
    EXPECT_EQ(second.options->reader, first.options->reader);
    EXPECT_EQ(second.options->control, first.options->control);
    EXPECT_EQ(second.options->sessionId, first.options->sessionId);
    EXPECT_EQ(second.options->backend, first.options->backend);
    EXPECT_EQ(second.options->cardIn, first.options->cardIn);
    EXPECT_EQ(second.options->logLevel, first.options->logLevel);
    EXPECT_EQ(second.options->pcscReader, first.options->pcscReader);
    EXPECT_EQ(std::filesystem::path(second.options->scriptFile).filename(),
              std::filesystem::path(first.options->scriptFile).filename());
  }
}

TEST(ServiceOptions, Paths_AreMadeAbsolute) {
  Options options;
  options.backend = BackendKind::kScript;
  options.scriptFile = "card.txt";
  EXPECT_THAT(argumentsOf(options),
              testing::Contains("--script=" + std::filesystem::absolute("card.txt").string()));
}

}  // namespace
}  // namespace zelta::agent
