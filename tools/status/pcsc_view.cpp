#include "tools/status/pcsc_view.h"

#include <winscard.h>

#include <array>
#include <vector>

namespace zelta::status {

namespace {

// The name that the reader's entry in pcscd's configuration gives it; pcscd numbers several.
constexpr char kNameBegin[] = "Zelta Virtual SmartCard Reader";

struct StateName {
  DWORD flag;
  const char* name;
};
// The highest that is set counts.
constexpr StateName kStates[] = {
    {SCARD_SPECIFIC, "specific"},   {SCARD_NEGOTIABLE, "negotiable"}, {SCARD_POWERED, "powered"},
    {SCARD_SWALLOWED, "swallowed"}, {SCARD_PRESENT, "present"},       {SCARD_ABSENT, "absent"},
};

class Context {
 public:
  Context() : result_(SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &handle_)) {}
  ~Context() {
    if (result_ == SCARD_S_SUCCESS) SCardReleaseContext(handle_);
  }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  LONG result() const { return result_; }
  SCARDCONTEXT get() const { return handle_; }

 private:
  SCARDCONTEXT handle_ = 0;
  LONG result_;
};

std::vector<std::string> virtualReaders(const Context& context) {
  DWORD size = 0;
  if (SCardListReaders(context.get(), nullptr, nullptr, &size) != SCARD_S_SUCCESS) return {};
  std::vector<char> names(size);
  if (SCardListReaders(context.get(), nullptr, names.data(), &size) != SCARD_S_SUCCESS) return {};
  std::vector<std::string> found;
  for (const char* name = names.data(); *name != '\0'; name += std::string(name).size() + 1) {
    if (std::string(name).rfind(kNameBegin, 0) == 0) found.emplace_back(name);
  }
  return found;
}

void look(const Context& context, PcscView& view) {
  SCARDHANDLE card = 0;
  DWORD protocol = 0;
  const LONG connected =
      SCardConnect(context.get(), view.reader.c_str(), SCARD_SHARE_DIRECT, 0, &card, &protocol);
  if (connected != SCARD_S_SUCCESS) {
    view.problem = pcsc_stringify_error(connected);
    return;
  }
  DWORD state = 0;
  std::array<BYTE, MAX_ATR_SIZE> atr{};
  DWORD atrSize = atr.size();
  DWORD nameSize = 0;
  const LONG looked =
      SCardStatus(card, nullptr, &nameSize, &state, &protocol, atr.data(), &atrSize);
  SCardDisconnect(card, SCARD_LEAVE_CARD);
  if (looked != SCARD_S_SUCCESS && looked != SCARD_E_INSUFFICIENT_BUFFER) {
    view.problem = pcsc_stringify_error(looked);
    return;
  }
  for (const StateName& known : kStates) {
    if ((state & known.flag) == 0) continue;
    view.state = known.name;
    break;
  }
  if (protocol == SCARD_PROTOCOL_T0) view.protocol = "T=0";
  if (protocol == SCARD_PROTOCOL_T1) view.protocol = "T=1";
  view.atr.assign(atr.data(), atr.data() + atrSize);
}

}  // namespace

PcscView lookAtReader(std::uint32_t index) {
  PcscView view;
  const Context context;
  if (context.result() != SCARD_S_SUCCESS) {
    view.problem = pcsc_stringify_error(context.result());
    return view;
  }
  const std::vector<std::string> readers = virtualReaders(context);
  if (index >= readers.size()) {
    view.problem = "pcscd lists no such reader";
    return view;
  }
  view.reader = readers[index];
  look(context, view);
  return view;
}

}  // namespace zelta::status
