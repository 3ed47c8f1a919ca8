// Makes the scripted card that the command line asks for.
#pragma once

#include <memory>

#include "agent/card/card_backend.h"
#include "agent/program/options.h"

namespace zelta::agent {

// Throws std::runtime_error with a message for people for a file that cannot be read or has an
// error in it.
std::unique_ptr<CardBackend> makeScriptBackend(const Options& options);

}  // namespace zelta::agent
