#include "agent/backend_choice.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "agent/emulated_card.h"
#include "agent/pcsc_card.h"
#include "agent/script_card.h"

namespace zelta::agent {

namespace {

std::ifstream openFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  return file;
}

std::unique_ptr<CardBackend> makeScriptCard(const Options& options) {
  std::ostringstream text;
  text << openFile(options.scriptFile).rdbuf();
  try {
    Script script = parseScript(text.str());
    const bool cardIn = options.cardIn.value_or(script.cardIn);
    return std::make_unique<ScriptCard>(std::move(script), cardIn);
  } catch (const ScriptError& error) {
    throw std::runtime_error(options.scriptFile + ": " + error.what());
  }
}

std::unique_ptr<CardBackend> makeEmulatedCard(const Options& options) {
  EmulatedCard::Settings settings;
  settings.database = options.database;
  settings.pin = options.pin;
  settings.certificates = options.certificates;
  settings.cardIn = options.cardIn.value_or(true);
  if (!options.pinFile.empty()) {
    std::ifstream file = openFile(options.pinFile);
    std::string pin;
    std::getline(file, pin);
    settings.pin = pin;
  }
  return std::make_unique<EmulatedCard>(std::move(settings));
}

}  // namespace

std::unique_ptr<CardBackend> makeBackend(const Options& options, Log& log) {
  switch (options.backend) {
    case BackendKind::Pcsc:
      return std::make_unique<PcscCard>(options.pcscReader, log);
    case BackendKind::Script:
      return makeScriptCard(options);
    case BackendKind::Emulated:
      break;
  }
  return makeEmulatedCard(options);
}

}  // namespace zelta::agent
