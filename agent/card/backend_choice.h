// Makes the card back end that the command line asks for.
#pragma once

#include <memory>

#include "agent/card/card_backend.h"
#include "agent/program/log.h"
#include "agent/program/options.h"

namespace zelta::agent {

// Throws std::runtime_error with a message for people, for example for a script with an error in
// it. `log` outlives the back end.
std::unique_ptr<CardBackend> makeBackend(const Options& options, Log& log);

}  // namespace zelta::agent
