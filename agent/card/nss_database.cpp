#include "agent/card/nss_database.h"

#include <cert.h>
#include <nss.h>
#include <pk11pub.h>
#include <prerror.h>
#include <secerr.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

#include "agent/program/wrong_configuration.h"

namespace zelta::agent {

namespace {

constexpr const char* kDemoNicknames[] = {"zelta-auth", "zelta-sign", "zelta-encrypt"};

[[noreturn]] void fail(const std::string& problem) { throw WrongConfiguration(problem); }

std::string lastNssError() {
  const char* name = PR_ErrorToName(PR_GetError());
  return name == nullptr ? std::to_string(PR_GetError()) : name;
}

struct ContextEnd {
  void operator()(NSSInitContext* context) const { NSS_ShutdownContext(context); }
};
struct SlotEnd {
  void operator()(PK11SlotInfo* slot) const { PK11_FreeSlot(slot); }
};
struct CertificateEnd {
  void operator()(CERTCertificate* certificate) const { CERT_DestroyCertificate(certificate); }
};

using Context = std::unique_ptr<NSSInitContext, ContextEnd>;
using Slot = std::unique_ptr<PK11SlotInfo, SlotEnd>;
using Certificate = std::unique_ptr<CERTCertificate, CertificateEnd>;

void checkPin(const std::string& pin) {
  const Slot slot(PK11_GetInternalKeySlot());
  if (slot == nullptr) {
    throw std::runtime_error("the card database has no key store: " + lastNssError());
  }
  if (PK11_CheckUserPassword(slot.get(), pin.c_str()) == SECSuccess) return;
  if (PR_GetError() == SEC_ERROR_BAD_PASSWORD) fail("the PIN is not the card database's password");
  throw std::runtime_error("the card database does not take the PIN: " + lastNssError());
}

bool hasCertificate(const std::string& nickname) {
  return Certificate(PK11_FindCertFromNickname(nickname.c_str(), nullptr)) != nullptr;
}

}  // namespace

std::vector<std::string> checkCardDatabase(const std::string& folder,
                                           const std::optional<std::string>& pin,
                                           const std::vector<std::string>& nicknames) {
  std::error_code problem;
  if (!std::filesystem::exists(std::filesystem::path(folder) / "cert9.db", problem)) {
    if (problem) fail("the card database in " + folder + ": " + problem.message());
    fail("no card database in " + folder +
         " (to make one: make-demo-db.sh, in /usr/share/zelta or a checkout's scripts)");
  }
  NSSInitParameters parameters{};
  parameters.length = sizeof parameters;
  const Context context(NSS_InitContext(("sql:" + folder).c_str(), "", "", "", &parameters,
                                        NSS_INIT_READONLY | NSS_INIT_NOROOTINIT));
  if (context == nullptr) fail("cannot open the card database " + folder + ": " + lastNssError());
  if (pin) checkPin(*pin);
  std::vector<std::string> found;
  for (const std::string& nickname : nicknames) {
    if (!hasCertificate(nickname)) fail("no certificate '" + nickname + "' in " + folder);
    found.push_back(nickname);
  }
  if (!nicknames.empty()) return found;
  for (const char* nickname : kDemoNicknames) {
    if (hasCertificate(nickname)) found.push_back(nickname);
  }
  if (found.empty()) fail("none of the demo certificates in " + folder + "; name some with --cert");
  return found;
}

}  // namespace zelta::agent
