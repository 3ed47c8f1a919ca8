// zelta-trace: shows the traffic between the applications and the card.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "contract/harmless.h"
#include "platform/process/environment.h"
#include "tools/trace/agent_lines.h"
#include "tools/trace/page.h"
#include "tools/trace/record.h"

namespace {

using namespace zelta::trace;

constexpr int kUsage = 2;

struct Options {
  std::string file;  // a saved trace; empty: the agent's
  AgentPlace agent;
  std::uint64_t count = 0;  // APDUs until the end; 0: no end
  std::string save;
  std::string html;
  int showSecrets = 0;
};

void declareOptions(CLI::App& app, Options& options) {
  app.set_version_flag("-V,--version", "zelta-trace " ZELTA_VERSION);
  auto* file = app.add_option("FILE", options.file, "Show this saved trace, not the agent's")
                   ->option_text(" ");
  const auto live = [&](CLI::Option* option) { return option->excludes(file); };
  app.add_option("--reader", options.agent.reader, "Index of the reader (default 0)")
      ->check(CLI::Range(std::uint32_t{0}, std::numeric_limits<std::uint32_t>::max()))
      ->option_text("INDEX");
  app.add_option("--control", options.agent.control, "Path of the agent's control socket")
      ->option_text("PATH");
  app.add_option("-n,--count", options.count, "End after so many APDUs")->option_text("NUMBER");
  live(app.add_option("--save", options.save, "Write the trace to a file, to be shown again")
           ->option_text("FILE"));
  app.add_option("--html", options.html, "Write a page with the time line at the end")
      ->option_text("FILE");
  live(app.add_flag("--show-secrets", options.showSecrets,
                    "Show PINs, keys and deciphered data as well;\nonly if given twice"))
      ->option_text(" ");
}

// Columns of the terminal; 0 if there is none.
std::size_t terminalWidth() {
  winsize size{};
  if (isatty(STDOUT_FILENO) == 0 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

// Reports the last system call's error for the file.
[[noreturn]] void fail(const std::string& file) {
  throw std::runtime_error(file + ": " + std::generic_category().message(errno));
}

// A file that only its owner can read; throws std::runtime_error if it cannot be written.
std::ofstream openOutput(const std::string& file) {
  const mode_t before = umask(S_IRWXG | S_IRWXO);
  std::ofstream output(file, std::ios::binary | std::ios::trunc);
  umask(before);
  if (!output) fail(file);
  // Only the user who called sudo may read it.
  const auto own = [&file](int failed) {
    if (failed != 0) throw std::runtime_error(file + " cannot be made its owner's alone");
  };
  own(chmod(file.c_str(), S_IRUSR | S_IWUSR));
  const std::string user = zelta::platform::environmentOr("SUDO_UID", "");
  const std::string group = zelta::platform::environmentOr("SUDO_GID", "");
  if (geteuid() == 0 && !user.empty() && !group.empty()) {
    own(chown(file.c_str(), static_cast<uid_t>(std::strtoul(user.c_str(), nullptr, 10)),
              static_cast<gid_t>(std::strtoul(group.c_str(), nullptr, 10))));
  }
  return output;
}

void finish(std::ofstream& output, const std::string& file) {
  output.close();
  if (!output) throw std::runtime_error(file + " cannot be written");
}

using NextLine = std::function<std::optional<std::string>()>;

NextLine linesOf(const Options& options) {
  if (options.file.empty()) {
    const auto lines = std::make_shared<AgentLines>(options.agent, options.showSecrets != 0);
    return [lines] { return lines->next(); };
  }
  const auto input = std::make_shared<std::ifstream>(options.file);
  if (!*input) fail(options.file);
  return [input, file = options.file]() -> std::optional<std::string> {
    std::string line;
    if (std::getline(*input, line)) return line;
    if (input->bad()) fail(file);  // such as a folder
    return std::nullopt;
  };
}

int show(const Options& options) {
  const NextLine next = linesOf(options);
  std::ofstream save;
  std::ofstream html;
  if (!options.save.empty()) save = openOutput(options.save);
  if (!options.html.empty()) html = openOutput(options.html);
  Reader reader;
  std::vector<Record> records;  // for the page
  std::uint64_t apdus = 0;
  std::size_t number = 0;
  while (const std::optional<std::string> line = next()) {
    ++number;
    const std::optional<Record> record = parseRecord(*line);
    if (!record) {
      throw std::runtime_error("line " + std::to_string(number) + " is no record of a trace");
    }
    if (save.is_open()) save << *line << std::endl;
    const std::string shown = lineOf(*record, reader.describe(*record), terminalWidth());
    // Ends when the reader of the output has gone.
    if (std::puts(shown.c_str()) < 0 || std::fflush(stdout) != 0) break;
    if (html.is_open()) records.push_back(*record);
    if (record->kind == "transmit" && ++apdus == options.count) break;
  }
  if (save.is_open()) finish(save, options.save);
  if (html.is_open()) {
    html << makePage(records);
    finish(html, options.html);
  }
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Shows what goes on between the applications and the card, a line an APDU.",
               "zelta-trace");
  Options options;
  declareOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kUsage;
  }
  if (options.showSecrets == 1) {
    std::cerr << "zelta-trace: secrets are shown only if --show-secrets is given twice\n";
    return kUsage;
  }
  return show(options);
} catch (const std::exception& error) {
  std::cerr << "zelta-trace: " << zelta::harmless(error.what()) << "\n";
  return EXIT_FAILURE;
}
