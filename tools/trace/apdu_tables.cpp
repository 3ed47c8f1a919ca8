#include "tools/trace/apdu_tables.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "contract/bytes.h"

namespace zelta::trace {

namespace {

constexpr int kAny = -1;

struct Instruction {
  Edge edge;  // kIso applies to every edge without its own entry
  std::uint8_t code;
  int parameters;  // P1 and P2, or kAny
  const char* name;
};

// More specific entries come first.
constexpr Instruction kInstructions[] = {
    {Edge::kPiv, 0xF8, kAny, "GET SERIAL NUMBER"},
    {Edge::kPiv, 0xF9, kAny, "ATTEST KEY"},
    {Edge::kPiv, 0xFA, kAny, "SET PIN RETRIES"},
    {Edge::kPiv, 0xFB, kAny, "RESET APPLICATION"},
    {Edge::kPiv, 0xFD, kAny, "GET VERSION"},
    {Edge::kPiv, 0xFE, kAny, "IMPORT PRIVATE KEY"},
    {Edge::kPiv, 0xFF, kAny, "SET MANAGEMENT KEY"},
    {Edge::kCac, 0x36, kAny, "GET CERTIFICATE"},
    {Edge::kCac, 0x42, kAny, "SIGN/DECRYPT"},
    {Edge::kCac, 0x4C, kAny, "GET ACR"},
    {Edge::kCac, 0x52, kAny, "READ BUFFER"},
    {Edge::kCac, 0x56, kAny, "GET PROPERTIES"},
    {Edge::kCac, 0x58, kAny, "UPDATE BUFFER"},
    {Edge::kOpenPgp, 0x47, 0x8000, "GENERATE KEY PAIR"},
    {Edge::kOpenPgp, 0x47, 0x8100, "READ PUBLIC KEY"},
    {Edge::kOpenPgp, 0x88, kAny, "INTERNAL AUTHENTICATE"},
    {Edge::kIso, 0x04, kAny, "DEACTIVATE FILE"},
    {Edge::kIso, 0x0C, kAny, "ERASE RECORD"},
    {Edge::kIso, 0x0E, kAny, "ERASE BINARY"},
    {Edge::kIso, 0x0F, kAny, "ERASE BINARY"},
    {Edge::kIso, 0x20, kAny, "VERIFY"},
    {Edge::kIso, 0x21, kAny, "VERIFY"},
    {Edge::kIso, 0x22, kAny, "MANAGE SECURITY ENVIRONMENT"},
    {Edge::kIso, 0x24, kAny, "CHANGE REFERENCE DATA"},
    {Edge::kIso, 0x25, kAny, "CHANGE REFERENCE DATA"},
    {Edge::kIso, 0x26, kAny, "DISABLE VERIFICATION REQUIREMENT"},
    {Edge::kIso, 0x27, kAny, "DISABLE VERIFICATION REQUIREMENT"},
    {Edge::kIso, 0x28, kAny, "ENABLE VERIFICATION REQUIREMENT"},
    {Edge::kIso, 0x29, kAny, "ENABLE VERIFICATION REQUIREMENT"},
    {Edge::kIso, 0x2A, 0x9E9A, "COMPUTE DIGITAL SIGNATURE"},
    {Edge::kIso, 0x2A, 0x8086, "DECIPHER"},
    {Edge::kIso, 0x2A, 0x8084, "DECIPHER"},
    {Edge::kIso, 0x2A, 0x8082, "DECIPHER"},
    {Edge::kIso, 0x2A, 0x8680, "ENCIPHER"},
    {Edge::kIso, 0x2A, 0x8480, "ENCIPHER"},
    {Edge::kIso, 0x2A, 0x8280, "ENCIPHER"},
    {Edge::kIso, 0x2A, 0x90A0, "HASH"},
    {Edge::kIso, 0x2A, 0x9080, "HASH"},
    {Edge::kIso, 0x2A, 0x00A8, "VERIFY DIGITAL SIGNATURE"},
    {Edge::kIso, 0x2A, 0x00BE, "VERIFY CERTIFICATE"},
    {Edge::kIso, 0x2A, kAny, "PERFORM SECURITY OPERATION"},
    {Edge::kIso, 0x2C, kAny, "RESET RETRY COUNTER"},
    {Edge::kIso, 0x2D, kAny, "RESET RETRY COUNTER"},
    {Edge::kIso, 0x44, kAny, "ACTIVATE FILE"},
    {Edge::kIso, 0x46, kAny, "GENERATE ASYMMETRIC KEY PAIR"},
    {Edge::kIso, 0x47, kAny, "GENERATE ASYMMETRIC KEY PAIR"},
    {Edge::kIso, 0x70, kAny, "MANAGE CHANNEL"},
    {Edge::kIso, 0x82, kAny, "EXTERNAL AUTHENTICATE"},
    {Edge::kIso, 0x84, kAny, "GET CHALLENGE"},
    {Edge::kIso, 0x86, kAny, "GENERAL AUTHENTICATE"},
    {Edge::kIso, 0x87, kAny, "GENERAL AUTHENTICATE"},
    {Edge::kIso, 0x88, kAny, "INTERNAL AUTHENTICATE"},
    {Edge::kIso, 0xA0, kAny, "SEARCH BINARY"},
    {Edge::kIso, 0xA1, kAny, "SEARCH BINARY"},
    {Edge::kIso, 0xA2, kAny, "SEARCH RECORD"},
    {Edge::kIso, 0xA4, kAny, "SELECT"},
    {Edge::kIso, 0xA5, kAny, "SELECT DATA"},
    {Edge::kIso, 0xB0, kAny, "READ BINARY"},
    {Edge::kIso, 0xB1, kAny, "READ BINARY"},
    {Edge::kIso, 0xB2, kAny, "READ RECORD"},
    {Edge::kIso, 0xB3, kAny, "READ RECORD"},
    {Edge::kIso, 0xC0, kAny, "GET RESPONSE"},
    {Edge::kIso, 0xC2, kAny, "ENVELOPE"},
    {Edge::kIso, 0xC3, kAny, "ENVELOPE"},
    {Edge::kIso, 0xCA, kAny, "GET DATA"},
    {Edge::kIso, 0xCB, kAny, "GET DATA"},
    {Edge::kIso, 0xCC, kAny, "GET NEXT DATA"},
    {Edge::kIso, 0xCD, kAny, "GET NEXT DATA"},
    {Edge::kIso, 0xD0, kAny, "WRITE BINARY"},
    {Edge::kIso, 0xD1, kAny, "WRITE BINARY"},
    {Edge::kIso, 0xD2, kAny, "WRITE RECORD"},
    {Edge::kIso, 0xD6, kAny, "UPDATE BINARY"},
    {Edge::kIso, 0xD7, kAny, "UPDATE BINARY"},
    {Edge::kIso, 0xD8, kAny, "PUT KEY"},
    {Edge::kIso, 0xDA, kAny, "PUT DATA"},
    {Edge::kIso, 0xDB, kAny, "PUT DATA"},
    {Edge::kIso, 0xDC, kAny, "UPDATE RECORD"},
    {Edge::kIso, 0xDD, kAny, "UPDATE RECORD"},
    {Edge::kIso, 0xE0, kAny, "CREATE FILE"},
    {Edge::kIso, 0xE2, kAny, "APPEND RECORD"},
    {Edge::kIso, 0xE4, kAny, "DELETE FILE"},
    {Edge::kIso, 0xE6, kAny, "TERMINATE DF"},
    {Edge::kIso, 0xE8, kAny, "TERMINATE EF"},
    {Edge::kIso, 0xF2, kAny, "GET STATUS"},
    {Edge::kIso, 0xFE, kAny, "TERMINATE CARD USAGE"},
};

struct Status {
  std::uint16_t code;
  std::uint16_t mask;
  const char* name;
};

constexpr std::uint16_t kExact = 0xFFFF;
constexpr std::uint16_t kFirstByte = 0xFF00;

// The first match counts.
constexpr Status kStatuses[] = {
    {0x9000, kExact, "success"},
    {0x6100, kFirstByte, "success, more to get"},
    {0x6281, kExact, "part of the data may be corrupted"},
    {0x6282, kExact, "end of file before that many bytes"},
    {0x6283, kExact, "selected file deactivated"},
    {0x6284, kExact, "file control information badly formatted"},
    {0x6285, kExact, "selected file terminated"},
    {0x6286, kExact, "no input from a sensor"},
    {0x6200, kFirstByte, "warning, nothing changed"},
    {0x6381, kExact, "file filled up"},
    {0x63C0, 0xFFF0, "wrong PIN or key"},
    {0x6300, kExact, "verification failed"},
    {0x6300, kFirstByte, "warning, something changed"},
    {0x6401, kExact, "immediate response required"},
    {0x6400, kFirstByte, "execution error, nothing changed"},
    {0x6581, kExact, "memory failure"},
    {0x6500, kFirstByte, "execution error, something changed"},
    {0x6600, kFirstByte, "security issue"},
    {0x6700, kFirstByte, "wrong length"},
    {0x6881, kExact, "logical channel not supported"},
    {0x6882, kExact, "secure messaging not supported"},
    {0x6883, kExact, "last command of the chain expected"},
    {0x6884, kExact, "command chaining not supported"},
    {0x6800, kFirstByte, "function in the class byte not supported"},
    {0x6981, kExact, "command incompatible with the file"},
    {0x6982, kExact, "security status not satisfied"},
    {0x6983, kExact, "PIN or key blocked"},
    {0x6984, kExact, "reference data not usable"},
    {0x6985, kExact, "conditions of use not satisfied"},
    {0x6986, kExact, "command not allowed, no file selected"},
    {0x6987, kExact, "secure messaging objects missing"},
    {0x6988, kExact, "secure messaging objects incorrect"},
    {0x6900, kFirstByte, "command not allowed"},
    {0x6A80, kExact, "incorrect parameters in the data"},
    {0x6A81, kExact, "function not supported"},
    {0x6A82, kExact, "file or application not found"},
    {0x6A83, kExact, "record not found"},
    {0x6A84, kExact, "not enough memory in the file"},
    {0x6A85, kExact, "length inconsistent with the structure"},
    {0x6A86, kExact, "incorrect P1 or P2"},
    {0x6A87, kExact, "length inconsistent with P1 and P2"},
    {0x6A88, kExact, "referenced data not found"},
    {0x6A89, kExact, "file exists already"},
    {0x6A8A, kExact, "application exists already"},
    {0x6A00, kFirstByte, "wrong parameters"},
    {0x6B00, kFirstByte, "wrong parameters, offset outside"},
    {0x6C00, kFirstByte, "wrong expected length"},
    {0x6D00, kFirstByte, "instruction not supported"},
    {0x6E00, kFirstByte, "class not supported"},
    {0x6F00, kFirstByte, "no precise diagnosis"},
};

constexpr std::uint16_t kSuccess = 0x9000;
constexpr std::uint8_t kMoreToGet = 0x61;
constexpr std::uint8_t kFirstWarning = 0x62;
constexpr std::uint8_t kLastWarning = 0x63;
constexpr std::uint16_t kTriesLeft = 0x63C0;
constexpr std::uint16_t kTriesMask = 0xFFF0;

// The longer names come first.
constexpr Application kApplications[] = {
    {"A00000030800001000", "PIV", Edge::kPiv},
    {"A000000308", "PIV", Edge::kPiv},
    {"A0000001160000", "CAC access control", Edge::kCac},
    {"A000000116DB00", "CAC capability container", Edge::kCac},
    {"A000000116", "CAC", Edge::kCac},
    {"A0000000790100", "CAC key 1", Edge::kCac},
    {"A0000000790101", "CAC key 2", Edge::kCac},
    {"A0000000790102", "CAC key 3", Edge::kCac},
    {"A00000007901", "CAC key", Edge::kCac},
    {"A000000079", "CAC", Edge::kCac},
    {"D27600012401", "OpenPGP", Edge::kOpenPgp},
    {"A000000063504B43532D3135", "PKCS#15", Edge::kIso},
    {"A000000151", "card manager", Edge::kIso},
    {"A000000003", "card manager", Edge::kIso},
    {"A0000003974349445F0100", "identity device", Edge::kIso},
};

struct Named {
  Edge edge;
  const char* digits;
  const char* name;
};

constexpr Named kObjects[] = {
    {Edge::kPiv, "5FC101", "card authentication certificate"},
    {Edge::kPiv, "5FC102", "card holder unique identifier"},
    {Edge::kPiv, "5FC103", "fingerprints"},
    {Edge::kPiv, "5FC105", "PIV authentication certificate"},
    {Edge::kPiv, "5FC106", "security object"},
    {Edge::kPiv, "5FC107", "card capability container"},
    {Edge::kPiv, "5FC108", "facial image"},
    {Edge::kPiv, "5FC109", "printed information"},
    {Edge::kPiv, "5FC10A", "digital signature certificate"},
    {Edge::kPiv, "5FC10B", "key management certificate"},
    {Edge::kPiv, "5FC10C", "key history"},
    {Edge::kPiv, "5FC121", "iris images"},
    {Edge::kPiv, "7E", "discovery object"},
    {Edge::kOpenPgp, "004F", "application identifier"},
    {Edge::kOpenPgp, "005E", "login data"},
    {Edge::kOpenPgp, "0065", "cardholder data"},
    {Edge::kOpenPgp, "006E", "application data"},
    {Edge::kOpenPgp, "007A", "security support"},
    {Edge::kOpenPgp, "00C4", "PIN status"},
    {Edge::kOpenPgp, "00C5", "fingerprints"},
    {Edge::kOpenPgp, "00D1", "key for secure messaging"},
    {Edge::kOpenPgp, "00D2", "key for secure messaging"},
    {Edge::kOpenPgp, "00D3", "resetting code"},
    {Edge::kOpenPgp, "00D5", "AES key"},
    {Edge::kOpenPgp, "00F4", "keys for secure messaging"},
    {Edge::kOpenPgp, "5F50", "URL"},
    {Edge::kOpenPgp, "5F52", "historical bytes"},
    {Edge::kOpenPgp, "7F21", "cardholder certificate"},
};

constexpr Named kReferences[] = {
    {Edge::kPiv, "00", "global PIN"}, {Edge::kPiv, "80", "PIV PIN"},
    {Edge::kPiv, "81", "PUK"},        {Edge::kOpenPgp, "81", "PIN for signatures"},
    {Edge::kOpenPgp, "82", "PIN"},    {Edge::kOpenPgp, "83", "admin PIN"},
    {Edge::kCac, "00", "PIN"},
};

template <std::size_t kCount>
std::string nameIn(const Named (&table)[kCount], Edge edge, const std::string& digits) {
  for (const Named& entry : table) {
    if (entry.edge == edge && digits == entry.digits) return entry.name;
  }
  return {};
}

std::string hexByte(std::uint8_t byte) { return toHex({byte}); }

}  // namespace

const char* edgeName(Edge edge) {
  constexpr const char* kNames[] = {"ISO", "PIV", "CAC", "OpenPGP"};
  return kNames[static_cast<std::size_t>(edge)];
}

std::string className(std::uint8_t classByte) {
  constexpr std::uint8_t kOwn = 0x80;
  constexpr std::uint8_t kFurther = 0x40;  // channels 4 to 19
  constexpr std::uint8_t kChained = 0x10;
  constexpr std::uint8_t kSecure = 0x0C;
  constexpr std::uint8_t kFurtherSecure = 0x20;
  constexpr int kFirstFurther = 4;
  if ((classByte & kOwn) != 0) return (classByte & kChained) != 0 ? "own, chained" : "own";
  const bool further = (classByte & kFurther) != 0;
  const int channel = further ? kFirstFurther + (classByte & 0x0F) : classByte & 0x03;
  std::string name;
  const auto add = [&name](const std::string& word) { name += (name.empty() ? "" : ", ") + word; };
  if ((classByte & (further ? kFurtherSecure : kSecure)) != 0) add("secure");
  if ((classByte & kChained) != 0) add("chained");
  if (channel != 0) add("channel " + std::to_string(channel));
  return name.empty() ? "ISO" : name;
}

std::string instructionName(Edge edge, std::uint8_t instruction, std::uint16_t parameters) {
  for (const Instruction& entry : kInstructions) {
    const bool fits = entry.edge == edge || entry.edge == Edge::kIso;
    const bool isMeant = entry.parameters == kAny || entry.parameters == parameters;
    if (entry.code == instruction && fits && isMeant) return entry.name;
  }
  return "INS " + hexByte(instruction);
}

std::string statusName(std::uint16_t status) {
  const auto* const found =
      std::find_if(std::begin(kStatuses), std::end(kStatuses),
                   [status](const Status& entry) { return (status & entry.mask) == entry.code; });
  if (found == std::end(kStatuses)) return "not known";
  std::string name = found->name;
  if ((status & kTriesMask) == kTriesLeft) {
    const int left = status & ~kTriesMask;
    name += ", " + std::to_string(left) + (left == 1 ? " try left" : " tries left");
  }
  return name;
}

bool isSuccess(std::uint16_t status) {
  const auto first = static_cast<std::uint8_t>(status >> 8);
  return status == kSuccess || first == kMoreToGet || first == kFirstWarning ||
         (first == kLastWarning && (status & 0xFF) == 0x81);
}

const Application* findApplication(const std::string& aidDigits) {
  const auto* const found = std::find_if(
      std::begin(kApplications), std::end(kApplications),
      [&](const Application& application) { return aidDigits.rfind(application.aid, 0) == 0; });
  return found == std::end(kApplications) ? nullptr : found;
}

std::string objectName(Edge edge, const std::string& tagDigits) {
  return nameIn(kObjects, edge, tagDigits);
}

std::string referenceName(Edge edge, std::uint8_t reference) {
  return nameIn(kReferences, edge, hexByte(reference));
}

}  // namespace zelta::trace
