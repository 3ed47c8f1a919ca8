// The log's sink on Linux: standard error.
#pragma once

#include "agent/program/log.h"

namespace zelta::agent {

// With a time stamp (UTC) and the level in front, or under systemd with the journal's own mark of
// the level, as it adds the time itself.
Log::Sink standardErrorSink();

}  // namespace zelta::agent
