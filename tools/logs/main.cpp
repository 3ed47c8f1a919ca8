// zelta-logs: shows and follows the driver's log files, and removes old ones.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <optional>
#include <string>

#include "contract/harmless.h"
#include "platform/process/environment.h"
#include "tools/logs/log_folder.h"
#include "tools/logs/printer.h"
#include "tools/logs/prune.h"

namespace {

using namespace zelta::logs;

struct Options {
  std::string folder = defaultFolder();
  bool all = false;
  bool noFollow = false;
  std::string color = "auto";
  std::optional<Format> format;  // none: depends on the output
  bool showSecrets = false;
  Filter filter;
  PruneLimits limits;
  bool dryRun = false;
  bool verbose = false;
};

Look look(const Options& options) {
  const bool isTerminal = isatty(STDOUT_FILENO) != 0;
  const bool isAllowed = zelta::platform::environmentOr("NO_COLOR", "").empty();
  Look look;
  look.color = options.color == "auto" ? isTerminal && isAllowed : options.color == "always";
  look.escape = isTerminal || look.color;  // colour implies a terminal
  look.secrets = options.showSecrets;
  look.format = options.format.value_or(isTerminal ? Format::kCompact : Format::kFull);
  return look;
}

void declareOptions(CLI::App& app, Options& options) {
  app.set_version_flag("-V,--version", "zelta-logs " ZELTA_VERSION);
  app.add_option("--dir", options.folder,
                 "Folder of the log files (default\n" + options.folder + ")")
      ->option_text("FOLDER");
  app.add_flag("-a,--all", options.all, "From the oldest file on (with --since: always)");
  app.add_flag("--no-follow", options.noFollow, "End with the last record instead of waiting");
  app.add_option_function<std::string>(
         "-l,--level",
         [&options](const std::string& text) { options.filter.level = *parseLevel(text); },
         "Records of this level and graver: critical,\nerror, info, debug, trace")
      ->option_text("LEVEL")
      ->check([](const std::string& text) {
        return parseLevel(text) ? std::string() : "no level is called '" + text + "'";
      });
  app.add_option("-t,--tag", options.filter.tags,
                 "Records whose message has this tag, such as\nTRSM or [TRSM]; may be repeated")
      ->option_text("TAG");
  app.add_option("-s,--session", options.filter.session,
                 "Records of the session whose id begins so")
      ->option_text("ID");
  app.add_option_function<std::string>(
         "--since",
         [&options](const std::string& text) {
           options.filter.since = *parseSince(text, std::time(nullptr));
         },
         "Records from a time on: 2024-03-05T14:07 (UTC),\nor 90s, 10m, 2h, 1d ago")
      ->option_text("TIME")
      ->check([](const std::string& text) {
        return parseSince(text, 0) ? std::string() : "'" + text + "' is not a time";
      });
  auto* view = app.add_option_function<std::string>(
                      "--view",
                      [&options](const std::string& text) {
                        options.format = text == "full" ? Format::kFull : Format::kCompact;
                      },
                      "compact: time, level, code, message, in 100\ncolumns (on a terminal); full: "
                      "as in the files")
                   ->check(CLI::IsMember({"compact", "full"}))
                   ->option_text("compact|full");
  app.add_flag_callback(
         "--json", [&options] { options.format = Format::kJson; }, "JSON, an object on each line")
      ->option_text(" ")
      ->excludes(view);
  app.add_option("--color", options.color, "Colours (default auto)")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->option_text("auto|always|never");
  app.add_flag("--show-secrets", options.showSecrets, "Show PINs, which byte dumps may hold");
}

// Takes a value that `parse` understands and that is not 0.
template <typename Value, typename Parse>
void addLimit(CLI::App& app, const std::string& name, std::optional<Value>& limit, Parse parse,
              const std::string& examples, const std::string& description) {
  app.add_option_function<std::string>(
         name, [&limit, parse](const std::string& text) { limit = *parse(text); },
         description + ",\nsuch as " + examples)
      ->option_text("LIMIT")
      ->check([parse, examples](const std::string& text) {
        const auto value = parse(text);
        return value && *value > 0 ? std::string()
                                   : "'" + text + "' is not a limit such as " + examples;
      });
}

CLI::App& declarePrune(CLI::App& app, Options& options) {
  CLI::App& prune = *app.add_subcommand("prune", "Remove old log files that are not in use");
  prune.add_option("--dir", options.folder, "The folder of the log files")->option_text("DIR");
  addLimit(prune, "--keep", options.limits.files, parseCount, "200", "How many files stay");
  addLimit(prune, "--max-age", options.limits.age, parseSpan, "30d, 12h",
           "How long after its last line a file stays");
  addLimit(
      prune, "--max-size", options.limits.bytes, parseSize, "200M, 1G",
      "How much all files may take together, in bytes,\nK (1024 bytes), M (1024 K) or G (1024 M)");
  prune.add_flag("-n,--dry-run", options.dryRun, "Only say what would be removed");
  prune.add_flag("-v,--verbose", options.verbose, "Say what is removed");
  prune.callback([&options] {
    const PruneLimits& limits = options.limits;
    if (!limits.files && !limits.age && !limits.bytes) {
      throw CLI::RequiredError("--keep, --max-age or --max-size");
    }
  });
  return prune;
}

// Why the folder cannot be read, and what to do; empty if it can be.
std::string findProblem(const std::string& folder) {
  const bool isSystems = folder == defaultFolder();
  std::error_code unseen;
  const auto status = std::filesystem::status(folder, unseen);
  if (exists(status) && !is_directory(status)) return folder + " is not a folder";
  if (access(folder.c_str(), R_OK | X_OK) != 0) {
    if (errno == EACCES) {
      return "permission denied: " + folder +
             (isSystems ? "; the logs are for root and the group adm: use sudo, or join the group "
                          "(sudo usermod -aG adm $USER) and log in again"
                        : "");
    }
    return "there is no folder " + folder +
           (isSystems ? "; is the package zelta-vsc installed? The log of another folder: --dir"
                      : "");
  }
  return "";
}

// Whether the folder can be read; says why if not.
bool isReadable(const std::string& folder) {
  const std::string problem = findProblem(folder);
  if (!problem.empty()) std::cerr << "zelta-logs: " << zelta::harmless(problem) << "\n";
  return problem.empty();
}

int show(const Options& options) {
  if (!isReadable(options.folder)) return EXIT_FAILURE;
  Printer printer(options.filter, look(options), [](std::string_view line) {
    (void)std::fwrite(line.data(), 1, line.size(), stdout);
    (void)std::fputc('\n', stdout);
  });
  LogReader reader(options.folder, options.all || !options.filter.since.empty());
  const auto print = [&printer](std::string_view line, const std::filesystem::path& file) {
    printer.print(line, file);
  };
  if (options.noFollow) {
    reader.readNew(print);
    if (!reader.current().empty()) return EXIT_SUCCESS;
    std::cerr << "zelta-logs: no log file in " << zelta::harmless(options.folder) << "\n";
    return EXIT_FAILURE;
  }
  FolderWatch watch(options.folder);  // before the first read, so that nothing is missed
  do {
    reader.readNew(print);
    if (std::fflush(stdout) != 0) return EXIT_FAILURE;  // nobody reads this any more
  } while (watch.wait());
  return isReadable(options.folder) ? EXIT_SUCCESS : EXIT_FAILURE;  // it may have been removed
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Shows and follows the log files of the virtual smart card reader's driver.",
               "zelta-logs");
  Options options;
  declareOptions(app, options);
  const CLI::App& pruning = declarePrune(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    constexpr int kUsage = 2;
    return app.exit(error) == 0 ? EXIT_SUCCESS : kUsage;
  }
  (void)std::signal(SIGIO, SIG_IGN);  // see isBeingWritten
  if (!pruning.parsed()) return show(options);
  const bool done = prune(options.folder, options.limits, options.dryRun, options.verbose);
  return done ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& error) {
  std::cerr << "zelta-logs: " << zelta::harmless(error.what()) << "\n";
  return EXIT_FAILURE;
}
