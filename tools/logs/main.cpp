// zelta-logs: shows and follows the driver's log files.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

#include "tools/logs/log_folder.h"
#include "tools/logs/printer.h"

namespace {

using namespace zelta::logs;

std::string defaultFolder() {
  const char* data = std::getenv("ZELTA_PROGRAM_DATA");
  const std::string base = data != nullptr && *data != '\0' ? data : "/var/log";
  return base + "/Vornhalt/ZeltaAgent/logs";
}

struct Options {
  std::string folder = defaultFolder();
  bool all = false;
  bool follow = true;
  std::string color = "auto";
  Filter filter;
};

bool wantsColor(const std::string& choice) {
  if (choice != "auto") return choice == "always";
  const char* noColor = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) != 0 && (noColor == nullptr || *noColor == '\0');
}

void declareOptions(CLI::App& app, Options& options) {
  app.set_version_flag("-V,--version", "zelta-logs " ZELTA_VERSION);
  app.add_option("--dir", options.folder, "The folder of the log files")->capture_default_str();
  app.add_flag("-a,--all", options.all, "From the oldest file on (with --since: always)");
  app.add_flag("!--no-follow", options.follow, "End with the last record instead of waiting");
  app.add_option_function<std::string>(
         "-l,--level",
         [&options](const std::string& text) { options.filter.level = *parseLevel(text); },
         "Records of this level and graver: critical, error, info, debug, trace")
      ->check([](const std::string& text) {
        return parseLevel(text) ? std::string() : "no level is called '" + text + "'";
      });
  app.add_option("-t,--tag", options.filter.tags,
                 "Records whose message has this tag, such as [TRSM]; may be repeated");
  app.add_option("-s,--session", options.filter.session,
                 "Records of the session whose id begins so");
  app.add_option_function<std::string>(
         "--since",
         [&options](const std::string& text) {
           options.filter.since = *parseSince(text, std::time(nullptr));
         },
         "Records from a time on: 2024-03-05T14:07 (UTC), or 90s, 10m, 2h, 1d ago")
      ->check([](const std::string& text) {
        return parseSince(text, 0) ? std::string() : "'" + text + "' is not a time";
      });
  app.add_option("--color", options.color, "Colours: auto, always, never")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->capture_default_str();
}

int show(const Options& options) {
  if (!std::filesystem::is_directory(options.folder)) {
    std::cerr << "zelta-logs: there is no folder " << options.folder << "\n";
    return EXIT_FAILURE;
  }
  Printer printer(options.filter, wantsColor(options.color), [](std::string_view line) {
    (void)std::fwrite(line.data(), 1, line.size(), stdout);
    (void)std::fputc('\n', stdout);
  });
  LogReader reader(options.folder, options.all || !options.filter.since.empty());
  const auto print = [&printer](std::string_view line) { printer.print(line); };
  if (!options.follow) {
    reader.readNew(print);
    if (!reader.current().empty()) return EXIT_SUCCESS;
    std::cerr << "zelta-logs: no log file in " << options.folder << "\n";
    return EXIT_FAILURE;
  }
  FolderWatch watch(options.folder);  // before the first read, so that nothing is missed
  do {
    reader.readNew(print);
    if (std::fflush(stdout) != 0) return EXIT_FAILURE;  // nobody reads this any more
  } while (watch.wait());
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Shows and follows the log files of the virtual smart card reader's driver.",
               "zelta-logs");
  Options options;
  declareOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    constexpr int kUsage = 2;
    return app.exit(error) == 0 ? EXIT_SUCCESS : kUsage;
  }
  return show(options);
} catch (const std::exception& error) {
  std::cerr << "zelta-logs: " << error.what() << "\n";
  return EXIT_FAILURE;
}
