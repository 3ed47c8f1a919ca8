#include "agent/card/script_backend.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "agent/card/script.h"
#include "agent/card/script_card.h"

namespace zelta::agent {

std::unique_ptr<CardBackend> makeScriptBackend(const Options& options) {
  std::ifstream file(options.scriptFile);
  if (!file) throw std::runtime_error("cannot read " + options.scriptFile);
  std::ostringstream text;
  text << file.rdbuf();
  try {
    Script script = parseScript(text.str());
    const bool cardIn = options.cardIn.value_or(script.cardIn);
    return std::make_unique<ScriptCard>(std::move(script), cardIn);
  } catch (const ScriptError& error) {
    throw std::runtime_error(options.scriptFile + ": " + error.what());
  }
}

}  // namespace zelta::agent
