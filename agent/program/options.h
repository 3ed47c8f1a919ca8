// The agent's command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/program/log.h"
#include "agent/remote/ssh_address.h"

namespace zelta::agent {

enum class BackendKind { kEmulated, kPcsc, kScript, kRemote };

// Exit codes of the program.
inline constexpr int kExitDone = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

inline constexpr char kDefaultDatabase[] = "/var/lib/zelta/card";

struct Options {
  enum class Action {
    kRun,
    kCtlInsert,
    kCtlRemove,
    kCtlStatus,
    kServiceInstall,
    kServiceRemove,
    kServiceRun,
  };

  Action action = Action::kRun;
  std::uint32_t reader = 0;
  std::string control;                           // empty: the default of the reader
  std::string sessionId;                         // empty: a fresh one
  BackendKind backend = BackendKind::kEmulated;  // on Windows, which has none: not chosen
  std::optional<bool> cardIn;                    // at the start; none: the back end's default
  Severity logLevel = Severity::kInfo;
  std::string database = kDefaultDatabase;
  std::optional<std::string> pin;
  std::string pinFile;
  std::vector<std::string> certificates;
  std::string pcscReader;
  std::string scriptFile;
  std::optional<SshAddress> to;  // the driver's machine, if it is another one
  std::string ssh = "ssh";       // the program that gets there
  std::string recordFile;        // empty: none
  bool json = false;
};

struct ParsedOptions {
  std::optional<Options> options;  // none: end at once
  int exitCode = kExitDone;        // if there are no options
  std::string output;              // for standard output: help or version
  std::string error;               // for standard error
};

enum class System { kLinux, kWindows };

// The program on one system. Its help shows what is available there; the rest is refused.
struct Edition {
  System system;
  const char* endings;  // a line of the help: what ends the program, and what it obeys meanwhile
};

ParsedOptions parseOptions(int argc, const char* const* argv, const Edition& edition);

// The command line that gives these options to an agent on Windows. Paths are made absolute,
// because a service begins in another folder.
std::vector<std::string> argumentsOf(const Options& options);

}  // namespace zelta::agent
