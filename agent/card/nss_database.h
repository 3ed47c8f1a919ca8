// Checks the NSS certificate database of an emulated card before the card is made from it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zelta::agent {

// Checks that `folder` holds a database, that its password is `pin` if one is given, and that it
// has the certificates `nicknames`; without any, looks for those of the demo database. Returns the
// nicknames of the card's certificates, at least one. Throws WrongConfiguration with a message
// for people, or another std::runtime_error if the database cannot be used for now. Must not be
// called while an emulated card runs in the process.
std::vector<std::string> checkCardDatabase(const std::string& folder,
                                           const std::optional<std::string>& pin,
                                           const std::vector<std::string>& nicknames);

}  // namespace zelta::agent
