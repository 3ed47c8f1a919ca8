// zelta-status: shows the reader, its agent, its card and the driver's log, once or as they change.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <limits>
#include <string>
#include <thread>

#include "contract/control.h"
#include "platform/pipe/ask_socket_linux.h"
#include "tools/logs/log_folder.h"
#include "tools/status/report.h"
#include "tools/trace/agent_lines.h"

namespace {

using namespace zelta;

constexpr int kUsage = 2;
constexpr std::chrono::seconds kAgentLimit{10};
constexpr std::chrono::milliseconds kWatchPeriod{500};
constexpr char kClearScreen[] = "\033[H\033[J";

struct Options {
  trace::AgentPlace agent;
  bool json = false;
  bool watch = false;
};

std::string newestLog() {
  const auto files = logs::logFiles(logs::defaultFolder());
  return files.empty() ? std::string() : files.back().string();
}

void askAgent(const Options& options, status::View& view) {
  const platform::SocketAnswer answer =
      platform::askSocket(options.agent.paths(), kControlStatusJson + std::string("\n"),
                          std::chrono::steady_clock::now() + kAgentLimit, kLongestControlAnswer);
  const std::string ok = kControlOk;
  if (answer.error != 0) {
    view.agentProblem = trace::agentProblem(options.agent, answer.error);
  } else if (answer.text.compare(0, ok.size(), ok) != 0) {
    view.agentProblem = "the agent gave no answer";
  } else {
    view.agentJson = answer.text.substr(ok.size());
  }
}

status::View look(const Options& options, status::VirtualReader& reader) {
  status::View view;
  askAgent(options, view);
  view.pcsc = reader.look();
  view.logFile = newestLog();
  return view;
}

int show(const Options& options) {
  std::string shown;
  status::VirtualReader reader(options.agent.reader);
  for (;;) {
    const status::View view = look(options, reader);
    const std::string text = options.json ? reportJson(view) : reportText(view);
    if (text != shown) {
      const bool clears = options.watch && !options.json && isatty(STDOUT_FILENO) != 0;
      if (clears) {
        std::cout << kClearScreen;
      } else if (!shown.empty() && !options.json) {
        std::cout << "\n";
      }
      if (!(std::cout << text << std::flush)) return EXIT_FAILURE;  // nobody reads this any more
      shown = text;
    }
    if (!options.watch) return view.agentProblem.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
    std::this_thread::sleep_for(kWatchPeriod);
  }
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Shows the virtual reader, its agent, its card and the driver's log.",
               "zelta-status");
  Options options;
  app.set_version_flag("-V,--version", "zelta-status " ZELTA_VERSION);
  app.add_option("--reader", options.agent.reader, "Index of the reader (default 0)")
      ->check(CLI::Range(std::uint32_t{0}, std::numeric_limits<std::uint32_t>::max()))
      ->option_text("INDEX");
  app.add_option("--control", options.agent.control, "Path of the agent's control socket")
      ->option_text("PATH");
  app.add_flag("--json", options.json, "One object on one line, for programs");
  app.add_flag("--watch", options.watch, "Show it again whenever it changes, until Ctrl-C");
  app.footer("Exit codes: 0 done, 1 no agent answers, 2 wrong usage.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kUsage;
  }
  return show(options);
} catch (const std::exception& error) {
  std::cerr << "zelta-status: " << error.what() << "\n";
  return EXIT_FAILURE;
}
