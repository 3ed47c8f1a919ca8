#include "agent/program/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <limits>
#include <sstream>
#include <utility>

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
constexpr const char* kLinuxBackends[] = {"emulated", "remote"};
// Options that only Linux has: the emulated card and a driver on another machine.
constexpr const char* kLinuxOptions[] = {"--db", "--pin", "--pin-file", "--cert", "--to", "--ssh"};
constexpr char kService[] = "service";  // only Windows has that
constexpr char kNotOnLinux[] = " is not available on Linux";
constexpr char kNotOnWindows[] = " is not available on Windows";
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

template <typename Value, std::size_t kCount>
std::string nameOf(const Named<Value> (&table)[kCount], Value value) {
  for (const Named<Value>& entry : table) {
    if (value == entry.value) return entry.name;
  }
  return {};
}

// The value of that name, else `fallback`.
template <typename Value, std::size_t kCount>
Value valueOf(const Named<Value> (&table)[kCount], const std::string& name, Value fallback) {
  for (const Named<Value>& entry : table) {
    if (name == entry.name) return entry.value;
  }
  return fallback;
}

bool isBackendOf(System system, const std::string& name) {
  return system == System::kLinux || std::find(std::begin(kLinuxBackends), std::end(kLinuxBackends),
                                               name) == std::end(kLinuxBackends);
}

// The back ends' names with a line between each.
std::string backendNames(System system) {
  std::string text;
  for (const std::string& name : names(kBackends)) {
    if (isBackendOf(system, name)) text += (text.empty() ? "" : "|") + name;
  }
  return text;
}

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
  CLI::App* serviceInstall = nullptr;
  CLI::App* serviceRemove = nullptr;
  CLI::App* serviceRun = nullptr;
};

std::string checkSessionId(const std::string& text) {
  return isSessionId(text) ? "" : "'" + text + "' is not a GUID";
}

std::string checkAddress(const std::string& text) {
  return parseSshAddress(text) ? "" : "'" + text + "' is not ssh://[user@]host[:port][/reader]";
}

void addShared(CLI::App& app, System system, Options& options) {
  app.add_option("--reader", options.reader, "Index of the reader (default 0)")
      ->check(CLI::Range(std::uint32_t{0}, std::numeric_limits<std::uint32_t>::max()))
      ->option_text("INDEX");
  if (system == System::kLinux) {
    app.add_option("--control", options.control, "Path of the control socket")->option_text("PATH");
  } else {
    app.add_option("--control", options.control, "Name of the control pipe")->option_text("PIPE");
  }
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

void addCardOptions(CLI::App& app, System system, Options& options, Flags& flags) {
  const std::string choice = system == System::kLinux ? "(default emulated)" : "(needed)";
  app.add_option("--backend", flags.backend, "Where the card comes from " + choice)
      ->check([system](const std::string& name) {
        const auto known = names(kBackends);
        const bool isKnown = std::find(known.begin(), known.end(), name) != known.end();
        return isKnown ? std::string() : name + " is none of " + backendNames(system);
      })
      ->option_text(backendNames(system));
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

void addControl(CLI::App& app, System system, Options& options, Flags& flags) {
  flags.ctl = app.add_subcommand("ctl", "Talk to the running agent");
  flags.ctl->footer(kExitCodes);
  flags.ctl->require_subcommand(1);
  flags.insert = flags.ctl->add_subcommand("insert", "Put the card in");
  flags.remove = flags.ctl->add_subcommand("remove", "Pull the card");
  flags.status = flags.ctl->add_subcommand("status", "Show what the agent is doing");
  for (CLI::App* command : {flags.insert, flags.remove, flags.status}) {
    addShared(*command, system, options);
  }
  flags.status->add_flag("--json", options.json, "For programs");
}

void addService(CLI::App& app, Flags& flags) {
  CLI::App* service = app.add_subcommand(kService, "Run the agent as a service");
  service->footer("Each takes the agent's options, too.\n" + std::string(kExitCodes));
  service->require_subcommand(1);
  service->fallthrough();
  flags.serviceInstall = service->add_subcommand("install", "Make the service of these options");
  flags.serviceRemove =
      service->add_subcommand("remove", "Stop the reader's service and remove it");
  flags.serviceRun = service->add_subcommand("run", "What the service runs");
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
  if (flags.serviceInstall->parsed()) options.action = Options::Action::kServiceInstall;
  if (flags.serviceRemove->parsed()) options.action = Options::Action::kServiceRemove;
  if (flags.serviceRun->parsed()) options.action = Options::Action::kServiceRun;
}

// Which options for a driver on another machine contradict each other; empty if none.
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
std::string findConflict(const Options& options, System system) {
  using Action = Options::Action;
  const bool runs = options.action == Action::kRun || options.action == Action::kServiceInstall ||
                    options.action == Action::kServiceRun;
  if (!runs) return {};
  if (system == System::kWindows && options.backend == BackendKind::kEmulated) {
    return "which card? --backend needs one of " + backendNames(system);
  }
  const bool script = options.backend == BackendKind::kScript;
  const bool pcsc = options.backend == BackendKind::kPcsc;
  if (script && options.scriptFile.empty()) return "--backend script needs --script FILE";
  if (!script && !options.scriptFile.empty()) return "--script needs --backend script";
  if (pcsc && options.pcscReader.empty()) return "--backend pcsc needs --pcsc-reader NAME";
  if (!pcsc && !options.pcscReader.empty()) return "--pcsc-reader needs --backend pcsc";
  if (pcsc && options.cardIn) return "--card-inserted and --no-card are not for a real card";
  return findRemoteConflict(options);
}

// The option on the command line that this system does not have; empty if there is none. It is
// looked for even in a wrong line: nobody is told how to use an option that does not exist here.
std::string findUnavailable(int argc, const char* const* argv, const CLI::App& app,
                            const Flags& flags, System system) {
  if (system == System::kLinux) {
    return app.got_subcommand(kService) ? kService + std::string(kNotOnLinux) : "";
  }
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const std::string name = word.substr(0, word.find('='));
    if (std::find(std::begin(kLinuxOptions), std::end(kLinuxOptions), name) !=
        std::end(kLinuxOptions)) {
      return name + kNotOnWindows;
    }
  }
  return isBackendOf(system, flags.backend) ? "" : "--backend " + flags.backend + kNotOnWindows;
}

// Leaves what the system does not have out of the help.
void hideUnavailable(CLI::App& app, System system) {
  if (system == System::kLinux) {
    app.get_subcommand(kService)->group("");
  } else {
    for (const char* option : kLinuxOptions) app.get_option(option)->group("");
  }
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
  app.set_version_flag("-V,--version", std::string("zelta-agent ") + kVersion);
  addShared(app, edition.system, options);
  app.add_option("--session-id", options.sessionId, "Id of the session (default a fresh one)")
      ->check(checkSessionId)
      ->option_text("GUID");
  addCardOptions(app, edition.system, options, flags);
  addRemoteOptions(app, options, flags);
  addLogOptions(app, flags);
  addControl(app, edition.system, options, flags);
  addService(app, flags);
  hideUnavailable(app, edition.system);
  std::optional<ParsedOptions> ended;
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool lacksWord = error.get_name() == "RequiredError" && flags.ctl->parsed();
    std::ostringstream output;
    std::ostringstream problem;
    const bool wanted = app.exit(error, output, problem) == 0;
    ended = {std::nullopt, wanted ? kExitDone : kExitUsage, output.str(), problem.str()};
    if (lacksWord) ended = refuse("ctl takes insert, remove or status");
  }
  const std::string unavailable = findUnavailable(argc, argv, app, flags, edition.system);
  if (!unavailable.empty()) return refuse(unavailable);
  if (ended) return *ended;
  applyFlags(app, flags, options);
  std::string problem = app.count("--to") == 0 ? "" : checkAddress(flags.to);
  if (problem.empty()) problem = findConflict(options, edition.system);
  if (!problem.empty()) return refuse(problem);
  return {options, kExitDone, "", ""};
}

std::vector<std::string> argumentsOf(const Options& options) {
  const auto absolute = [](const std::string& path) {
    return path.empty() ? path : std::filesystem::absolute(path).string();
  };
  const std::pair<const char*, std::string> values[] = {
      {"--reader", std::to_string(options.reader)},
      {"--control", options.control},
      {"--session-id", options.sessionId},
      {"--backend", nameOf(kBackends, options.backend)},
      {"--pcsc-reader", options.pcscReader},
      {"--script", absolute(options.scriptFile)},
      {"--record", absolute(options.recordFile)},
      {"--log-level", nameOf(kLevels, options.logLevel)},
  };
  std::vector<std::string> words;
  for (const auto& [option, value] : values) {
    if (!value.empty()) words.push_back(option + ("=" + value));
  }
  if (options.cardIn) words.emplace_back(*options.cardIn ? "--card-inserted" : "--no-card");
  return words;
}

}  // namespace zelta::agent
