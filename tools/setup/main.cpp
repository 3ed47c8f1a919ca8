// zelta-setup: installs the virtual smart card reader on Windows, removes it, shows its state.
#include <windows.h>
// windows.h comes first
#include <CLI/CLI.hpp>
#include <array>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "tools/setup/elevation.h"
#include "tools/setup/installer.h"
#include "tools/setup/windows_error.h"
#include "tools/setup/windows_parts.h"

namespace {

using namespace zelta::setup;

constexpr char kHelpEnd[] =
    "What is there already stays as it is. If a step fails, those before it are\n"
    "undone. install and remove ask for an administrator's rights. The driver\n"
    "package has to be signed: docs/windows.md.\n\n"
    "Exit codes: 0 done; 1 failed (status: not everything is there); 2 wrong usage;\n"
    "3 done, Windows has to be restarted; 4 administrator's rights refused;\n"
    "5 installed, but the device does not work.";

struct Options {
  bool withAgent = false;
  bool withData = false;
  std::vector<std::string> agentArguments;
  std::uint32_t consoleOf = 0;  // the process whose console is written to; 0: this one
};

std::wstring ownFolder() {
  std::array<wchar_t, 32768> program{};
  require(GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size())) > 0,
          "cannot find this program");
  return std::filesystem::path(program.data()).parent_path().wstring();
}

// Each with a blank before it, quoted as a program's start-up code expects.
std::wstring quoted(const std::vector<std::string>& arguments) {
  std::wstring line;
  for (const std::string& argument : arguments) {
    if (argument.find('"') != std::string::npos) {
      throw std::runtime_error("the agent's arguments may hold no quotation marks");
    }
    // Backslashes before the closing quotation mark would escape it.
    const std::size_t slashes = argument.size() - 1 - argument.find_last_not_of('\\');
    line += L" \"" + wide(argument + std::string(argument.empty() ? 0 : slashes, '\\')) + L"\"";
  }
  return line;
}

std::vector<Step> stepsOf(const Options& options) {
  const std::wstring folder = ownFolder();
  std::vector<Step> steps;
  const auto add = [&steps](const char* name, std::unique_ptr<Part> part, bool isOptional,
                            bool isData) {
    steps.push_back({name, std::move(part), isOptional, isData});
  };
  add("log folder", makeLogFolder(), false, true);
  add("settings", makeSettings(), false, true);
  add("driver package", makeDriverPackage(folder), false, false);
  add("device", makeReaderDevice(folder), false, false);
  add("agent service", makeAgentService(folder, quoted(options.agentArguments)), true, false);
  return steps;
}

Outcome run(const CLI::App& app, const Options& options) {
  if (options.consoleOf != 0) {
    useConsoleOf(options.consoleOf);
  } else if (!app.got_subcommand("status") && !isElevated()) {
    if (const auto code = runElevated()) return static_cast<Outcome>(*code);
    std::cerr << "zelta-setup: administrator's rights were refused; nothing was changed\n";
    return Outcome::kRefused;
  }
  Installer installer(stepsOf(options), std::cout);
  if (app.got_subcommand("install")) return installer.install(options.withAgent);
  if (app.got_subcommand("remove")) return installer.remove(options.withData);
  return installer.status();
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app("Installs the virtual smart card reader, removes it, says what is there.",
               "zelta-setup");
  Options options;
  app.set_version_flag("-V,--version", "zelta-setup " ZELTA_VERSION);
  app.require_subcommand(1);
  app.add_option(kConsoleOption, options.consoleOf)->group("");
  CLI::App* install = app.add_subcommand("install", "Make log folder, settings and device");
  install->add_flag("--agent-service", options.withAgent, "Also the agent, as a service");
  install->add_option("arguments", options.agentArguments, "After --: the agent's own options")
      ->option_text("ARGUMENT...");
  CLI::App* remove = app.add_subcommand("remove", "Remove it again; logs and settings stay");
  remove->add_flag("--purge", options.withData, "Logs and settings, too");
  app.add_subcommand("status", "What is there, and whether it works");
  app.footer(kHelpEnd);
  try {
    app.parse(argc, argv);
    if (!options.withAgent && !options.agentArguments.empty()) {
      throw CLI::RequiresError("arguments", "--agent-service");
    }
  } catch (const CLI::ParseError& error) {
    return static_cast<int>(app.exit(error) == 0 ? Outcome::kDone : Outcome::kUsage);
  }
  return static_cast<int>(run(app, options));
} catch (const std::exception& error) {
  std::cerr << "zelta-setup: " << error.what() << "\n";
  return static_cast<int>(zelta::setup::Outcome::kFailed);
}
