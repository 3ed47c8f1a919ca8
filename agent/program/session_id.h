// The id that ties the driver's log to the agent's session.
#pragma once

#include <string>

namespace zelta::agent {

// A fresh random GUID, 36 characters in lower case. Throws std::system_error if the system gives no
// random numbers.
std::string newSessionId();

// Whether the text has the form of a GUID: 8-4-4-4-12 hexadecimal digits.
bool isSessionId(const std::string& text);

}  // namespace zelta::agent
