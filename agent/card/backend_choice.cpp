#include "agent/card/backend_choice.h"

#include <fstream>
#include <stdexcept>
#include <utility>

#include "agent/card/card_file.h"
#include "agent/card/emulated_card.h"
#include "agent/card/pcsc_card.h"
#include "agent/card/script_card.h"

namespace zelta::agent {

namespace {

std::unique_ptr<CardBackend> makeEmulatedCard(const Options& options) {
  EmulatedCard::Settings settings;
  settings.database = options.database;
  settings.pin = options.pin;
  settings.certificates = options.certificates;
  settings.cardIn = options.cardIn.value_or(true);
  if (!options.pinFile.empty()) {
    std::ifstream file = openCardFile(options.pinFile);
    std::string pin;
    std::getline(file, pin);
    settings.pin = pin;
  }
  return std::make_unique<EmulatedCard>(std::move(settings));
}

}  // namespace

std::unique_ptr<CardBackend> makeBackend(const Options& options, Log& log) {
  switch (options.backend) {
    case BackendKind::kPcsc:
      return std::make_unique<PcscCard>(options.pcscReader, log);
    case BackendKind::kScript:
      return loadScriptCard(options.scriptFile, options.cardIn);
    case BackendKind::kRemote:  // the program's, which has the line
      throw std::logic_error("a remote card is no back end of this machine");
    case BackendKind::kEmulated:
      break;
  }
  return makeEmulatedCard(options);
}

}  // namespace zelta::agent
