#include "agent/program/options.h"

#include <CLI/CLI.hpp>
#include <limits>
#include <sstream>

#include "agent/program/session_id.h"
#include "agent/version.h"

namespace zelta::agent {

namespace {

constexpr char kDescription[] =
    "Keeps the smart card of a virtual reader and serves the reader's driver.";
constexpr char kExitCodes[] =
    "Exit codes: 0 ended as asked, 1 failure, 2 wrong usage or\n"
    "configuration.";

template <typename Value>
struct Named {
  const char* name;
  Value value;
};

constexpr Named<BackendKind> kBackends[] = {{"emulated", BackendKind::kEmulated},
                                            {"pcsc", BackendKind::kPcsc},
                                            {"script", BackendKind::kScript},
                                            {"remote", BackendKind::kRemote}};
constexpr Named<Severity> kLevels[] = {{"error", Severity::kError},
                                       {"warning", Severity::kWarning},
                                       {"info", Severity::kInfo},
                                       {"debug", Severity::kDebug}};

template <typename Value, std::size_t kCount>
std::vector<std::string> names(const Named<Value> (&table)[kCount]) {
  std::vector<std::string> all;
  for (const Named<Value>& entry : table) all.push_back(entry.name);
  return all;
}

// The value of that name, else `fallback`.
template <typename Value, std::size_t kCount>
Value valueOf(const Named<Value> (&table)[kCount], const std::string& name, Value fallback) {
  for (const Named<Value>& entry : table) {
    if (name == entry.name) return entry.value;
  }
  return fallback;
}

// Options of what only Linux has: the control socket, the emulated card, a real reader's card, a
// driver at another machine and the recorder.
constexpr const char* kLinuxOptions[] = {"--control",     "--db", "--pin", "--pin-file", "--cert",
                                         "--pcsc-reader", "--to", "--ssh", "--record"};

// What the command line sets besides `Options` itself.
struct Flags {
  bool cardInserted = false;
  bool noCard = false;
  bool quiet = false;
  bool verbose = false;
  std::string backend;
  std::string logLevel;
  std::string pin;
  std::string to;
  CLI::Option* level = nullptr;
  CLI::App* ctl = nullptr;
  CLI::App* insert = nullptr;
  CLI::App* remove = nullptr;
  CLI::App* status = nullptr;
};

std::string checkSessionId(const std::string& text) {
  return isSessionId(text) ? "" : "'" + text + "' is not a GUID";
}

std::string checkAddress(const std::string& text) {
  return parseSshAddress(text) ? "" : "'" + text + "' is not ssh://[user@]host[:port][/reader]";
}

void addShared(CLI::App& app, Options& options) {
  app.add_option("--reader", options.reader, "Index of the reader (default 0)")
      ->check(CLI::Range(std::uint32_t{0}, std::numeric_limits<std::uint32_t>::max()))
      ->option_text("INDEX");
  app.add_option("--control", options.control, "Path of the control socket")->option_text("PATH");
}

void addEmulatedOptions(CLI::App& app, Options& options, Flags& flags) {
  const std::string group = "Emulated card";
  const std::string folder = "Folder of the NSS certificate database\n(default ";
  app.add_option("--db", options.database, folder + kDefaultDatabase + ")")
      ->option_text("FOLDER")
      ->group(group);
  auto* pin = app.add_option("--pin", flags.pin,
                             "Check the card's PIN at the start (other users\n"
                             "can see it; prefer --pin-file)")
                  ->option_text("PIN")
                  ->group(group);
  app.add_option("--pin-file", options.pinFile, "The same, from the first line of a file")
      ->option_text("FILE")
      ->group(group)
      ->excludes(pin);
  app.add_option("--cert", options.certificates,
                 "Nickname of a certificate on the card;\n"
                 "repeatable, in the card's order")
      ->option_text("NICKNAME")
      ->group(group)
      ->allow_extra_args(false);
}

void addCardOptions(CLI::App& app, Options& options, Flags& flags) {
  app.add_option("--backend", flags.backend, "Where the card comes from (default emulated)")
      ->check(CLI::IsMember(names(kBackends)))
      ->option_text("emulated|pcsc|script|remote");
  auto* inserted = app.add_flag("--card-inserted", flags.cardInserted, "Start with the card in");
  app.add_flag("--no-card", flags.noCard, "Start without the card")->excludes(inserted);
  addEmulatedOptions(app, options, flags);
  app.add_option("--pcsc-reader", options.pcscReader, "Name of the real reader")
      ->option_text("NAME")
      ->group("Real card");
  app.add_option("--script", options.scriptFile, "File that the card answers from")
      ->option_text("FILE")
      ->group("Scripted card");
  app.add_option("--record", options.recordFile,
                 "Write a card script from what the card answers,\nsecrets masked")
      ->option_text("FILE");
}

void addRemoteOptions(CLI::App& app, Options& options, Flags& flags) {
  const std::string group = "Driver at another machine";
  auto* to = app.add_option("--to", flags.to,
                            "Lend the card to the agent there, which ssh\nstarts: "
                            "ssh://[user@]host[:port][/reader]")
                 ->option_text("ADDRESS")
                 ->group(group);
  app.add_option("--ssh", options.ssh, "The ssh program (default ssh)")
      ->option_text("PROGRAM")
      ->group(group)
      ->needs(to);
}

void addLogOptions(CLI::App& app, Flags& flags) {
  flags.level = app.add_option("--log-level", flags.logLevel, "Least weight of a log line")
                    ->check(CLI::IsMember(names(kLevels)))
                    ->option_text("error|warning|info|debug");
  auto* quiet = app.add_flag("-q,--quiet", flags.quiet, "Log errors only")->excludes(flags.level);
  app.add_flag("-v,--verbose", flags.verbose, "Log everything")
      ->excludes(flags.level)
      ->excludes(quiet);
}

void addControl(CLI::App& app, Options& options, Flags& flags) {
  flags.ctl = app.add_subcommand("ctl", "Talk to the running agent");
  flags.ctl->footer(kExitCodes);
  flags.ctl->require_subcommand(1);
  flags.insert = flags.ctl->add_subcommand("insert", "Put the card in");
  flags.remove = flags.ctl->add_subcommand("remove", "Pull the card");
  flags.status = flags.ctl->add_subcommand("status", "Show what the agent is doing");
  for (CLI::App* command : {flags.insert, flags.remove, flags.status}) {
    addShared(*command, options);
  }
  flags.status->add_flag("--json", options.json, "For programs");
}

void applyFlags(const CLI::App& app, const Flags& flags, Options& options) {
  if (flags.cardInserted) options.cardIn = true;
  if (flags.noCard) options.cardIn = false;
  options.backend = valueOf(kBackends, flags.backend, options.backend);
  options.logLevel = valueOf(kLevels, flags.logLevel, options.logLevel);
  if (flags.quiet) options.logLevel = Severity::kError;
  if (flags.verbose) options.logLevel = Severity::kDebug;
  if (app.count("--pin") != 0) options.pin = flags.pin;
  if (app.count("--to") != 0) options.to = parseSshAddress(flags.to);
  if (flags.insert->parsed()) options.action = Options::Action::kCtlInsert;
  if (flags.remove->parsed()) options.action = Options::Action::kCtlRemove;
  if (flags.status->parsed()) options.action = Options::Action::kCtlStatus;
}

// The same of the options for a driver at another machine.
std::string findRemoteConflict(const Options& options) {
  const bool remote = options.backend == BackendKind::kRemote;
  if (remote && options.cardIn) return "--card-inserted and --no-card are not for a remote card";
  if (!options.to) return {};
  if (remote) return "--to needs a card here; --backend remote is what it starts there";
  if (options.reader != 0) return "--reader is not for --to, which names it: ssh://host/INDEX";
  if (!options.sessionId.empty()) return "--session-id is not for --to";
  return {};
}

// Which options contradict each other or are missing; empty if none.
std::string findConflict(const Options& options) {
  if (options.action != Options::Action::kRun) return {};
  const bool script = options.backend == BackendKind::kScript;
  const bool pcsc = options.backend == BackendKind::kPcsc;
  if (script && options.scriptFile.empty()) return "--backend script needs --script FILE";
  if (!script && !options.scriptFile.empty()) return "--script needs --backend script";
  if (pcsc && options.pcscReader.empty()) return "--backend pcsc needs --pcsc-reader NAME";
  if (!pcsc && !options.pcscReader.empty()) return "--pcsc-reader needs --backend pcsc";
  if (pcsc && options.cardIn) return "--card-inserted and --no-card are not for a real card";
  return findRemoteConflict(options);
}

// Which option this edition does not have; empty if none.
std::string findUnavailable(const CLI::App& app, const Options& options, const Edition& edition) {
  if (!edition.scriptOnly) return {};
  const bool remote = options.backend == BackendKind::kRemote;
  if (remote) return "--backend remote is not available on Windows";
  for (const char* option : kLinuxOptions) {
    if (app.count(option) != 0) return std::string(option) + " is not available on Windows";
  }
  return {};
}

ParsedOptions refuse(const std::string& problem) {
  return {std::nullopt, kExitUsage, "", problem + "\nRun with --help for more information.\n"};
}

}  // namespace

ParsedOptions parseOptions(int argc, const char* const* argv, const Edition& edition) {
  Options options;
  Flags flags;
  CLI::App app(kDescription, "zelta-agent");
  app.footer(std::string(edition.endings) + "\n" + kExitCodes);
  app.set_version_flag("--version", std::string("zelta-agent ") + kVersion);
  addShared(app, options);
  app.add_option("--session-id", options.sessionId, "Id of the session (default a fresh one)")
      ->check(checkSessionId)
      ->option_text("GUID");
  addCardOptions(app, options, flags);
  addRemoteOptions(app, options, flags);
  addLogOptions(app, flags);
  addControl(app, options, flags);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream output;
    std::ostringstream problem;
    const bool wanted = app.exit(error, output, problem) == 0;
    return {std::nullopt, wanted ? kExitDone : kExitUsage, output.str(), problem.str()};
  }
  applyFlags(app, flags, options);
  std::string problem = findUnavailable(app, options, edition);
  if (problem.empty() && app.count("--to") != 0) problem = checkAddress(flags.to);
  if (problem.empty()) problem = findConflict(options);
  if (!problem.empty()) return refuse(problem);
  return {options, kExitDone, "", ""};
}

}  // namespace zelta::agent
