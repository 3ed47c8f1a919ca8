// The system's event log, for an agent that runs as a service.
//
// Its log "Application" has one source for each service. The text of every event is a line of the
// agent's log; the form of the events, which is that text and nothing else, is in the program.
#pragma once

#include <string>

#include "agent/program/log.h"

namespace zelta::agent {

// Lets the event viewer find the form of the source's events in the program at `program`. Needs the
// rights of an administrator. Throws std::runtime_error with a message for people.
void registerEventSource(const std::string& source, const std::string& program);
// Undoes that; does nothing if the source is not registered.
void forgetEventSource(const std::string& source);

// Errors, warnings and the rest are events of those types. Throws std::runtime_error.
Log::Sink eventLogSink(const std::string& source);

}  // namespace zelta::agent
