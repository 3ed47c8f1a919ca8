// Names for the parts of commands and responses.
//
// Sources: ISO/IEC 7816-4, -8 and -9 (instructions, status words); NIST SP 800-73-4 (PIV); the
// Government Smart Card Interoperability Specification 2.1, NISTIR 6887 (CAC); the functional
// specification of the OpenPGP application 3.4; GlobalPlatform Card Specification 2.3. The
// selection follows the commands that OpenSC's card drivers send.
#pragma once

#include <cstdint>
#include <string>

namespace zelta::trace {

// The command set of a card's application.
enum class Edge { kIso, kPiv, kCac, kOpenPgp };

// "ISO", "PIV", "CAC", "OpenPGP".
const char* edgeName(Edge edge);

// The meaning of the class byte: "ISO", "chained", "secure", "channel 1", "own".
std::string className(std::uint8_t classByte);

// "READ BINARY"; "INS 7C" if there is none. P1 and P2 tell the operations of PERFORM SECURITY
// OPERATION apart.
std::string instructionName(Edge edge, std::uint8_t instruction, std::uint16_t parameters);

// "file or application not found"; "not known" if there is none.
std::string statusName(std::uint16_t status);
// Whether the card did what was asked, if only with a warning.
bool isSuccess(std::uint16_t status);

struct Application {
  const char* aid;  // its beginning, in hexadecimal
  const char* name;
  Edge edge;
};
// Null if it is not known.
const Application* findApplication(const std::string& aidDigits);

// The name of a data object of that edge by its tag in hexadecimal; empty if it is not known.
std::string objectName(Edge edge, const std::string& tagDigits);

// Whose PIN or key P2 of VERIFY means; empty if it is not known.
std::string referenceName(Edge edge, std::uint8_t reference);

}  // namespace zelta::trace
