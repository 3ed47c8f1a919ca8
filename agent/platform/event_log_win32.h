// The system's event log, for an agent that runs as a service.
//
// Its log "Application" has one source for each service. The text of every event is a line of the
// agent's log; the form of the events, which is that text and nothing else, is in the program.
#pragma once

#include <string>

#include "agent/program/log.h"

namespace zelta::agent {

// Registers the source: the event viewer finds the form of its events in the program at `program`.
// Needs the rights of an administrator. Throws std::runtime_error with a message for people.
void registerEventSource(const std::string& source, const std::string& program);
// Unregisters the source; does nothing if it is not registered.
void forgetEventSource(const std::string& source);

// Writes errors, warnings and information as events of those types. Throws std::runtime_error.
Log::Sink eventLogSink(const std::string& source);

}  // namespace zelta::agent
