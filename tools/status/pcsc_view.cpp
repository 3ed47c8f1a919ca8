#include "tools/status/pcsc_view.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <winscard.h>

#include <array>
#include <utility>

#include "contract/attributes.h"
#include "platform/files/scoped_fd_linux.h"

namespace zelta::status {

namespace {

// The name that the reader's entry in pcscd's configuration gives it; pcscd numbers several.
constexpr char kNameBegin[] = "Zelta Virtual SmartCard Reader";
constexpr char kTaken[] = "a program has the reader for itself";
constexpr int kOpenLimit = 1000;  // milliseconds
// pcscd does not report its own actions as changes, such as switching off an unused card.
constexpr std::chrono::seconds kLookAgain{10};

struct StateName {
  DWORD flag;
  const char* name;
};
// The first entry whose bit is set counts.
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

// The reader, opened without its card; others go on using it.
class OpenReader {
 public:
  OpenReader(SCARDCONTEXT context, const std::string& name) {
    DWORD protocol = 0;
    result_ = SCardConnect(context, name.c_str(), SCARD_SHARE_DIRECT, 0, &handle_, &protocol);
  }
  ~OpenReader() {
    if (result_ == SCARD_S_SUCCESS) SCardDisconnect(handle_, SCARD_LEAVE_CARD);
  }
  OpenReader(const OpenReader&) = delete;
  OpenReader& operator=(const OpenReader&) = delete;

  LONG result() const { return result_; }
  SCARDHANDLE get() const { return handle_; }

 private:
  SCARDHANDLE handle_ = 0;
  LONG result_;
};

std::vector<std::string> virtualReaders(SCARDCONTEXT context) {
  DWORD size = 0;
  if (SCardListReaders(context, nullptr, nullptr, &size) != SCARD_S_SUCCESS) return {};
  std::vector<char> names(size);
  if (SCardListReaders(context, nullptr, names.data(), &size) != SCARD_S_SUCCESS) return {};
  std::vector<std::string> found;
  for (const char* name = names.data(); *name != '\0'; name += std::string(name).size() + 1) {
    if (std::string(name).rfind(kNameBegin, 0) == 0) found.emplace_back(name);
  }
  return found;
}

// State, counter and ATR, which the service gives without opening the reader.
SCARD_READERSTATE stateOf(SCARDCONTEXT context, const std::string& name) {
  SCARD_READERSTATE state{};
  state.szReader = name.c_str();
  const LONG result = SCardGetStatusChange(context, 0, &state, 1);
  if (result != SCARD_S_SUCCESS) state.dwEventState = SCARD_STATE_UNAVAILABLE;
  return state;
}

// Values that only an open reader gives.
struct Inside {
  LONG result = SCARD_E_SHARING_VIOLATION;
  DWORD state = 0;
  DWORD protocol = 0;
  bool hasIndex = false;    // a reader of the driver's
  std::uint32_t index = 0;  // that the driver gives it
};

Inside openAndLook(const std::string& name) {
  Inside inside;
  const Context context;
  const OpenReader reader(context.get(), name);
  inside.result = reader.result();
  if (inside.result != SCARD_S_SUCCESS) return inside;
  DWORD size = sizeof inside.index;
  inside.hasIndex =
      SCardGetAttrib(reader.get(), zelta::SCARD_ATTR_DEVICE_UNIT,
                     reinterpret_cast<BYTE*>(&inside.index), &size) == SCARD_S_SUCCESS &&
      size == sizeof inside.index;
  DWORD nameSize = 0;
  DWORD atrSize = 0;
  inside.result = SCardStatus(reader.get(), nullptr, &nameSize, &inside.state, &inside.protocol,
                              nullptr, &atrSize);
  if (inside.result == SCARD_E_INSUFFICIENT_BUFFER) inside.result = SCARD_S_SUCCESS;
  return inside;
}

// Opens the reader in a child process, which can be killed: SCardConnect waits without limit for
// the end of another program's transaction.
Inside lookInside(const std::string& name) {
  Inside inside;
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return inside;
  const platform::ScopedFd reading(ends[0]);
  platform::ScopedFd writing(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    const Inside seen = openAndLook(name);
    _exit(write(writing.get(), &seen, sizeof seen) == sizeof seen ? 0 : 1);
  }
  writing.reset();
  pollfd wait{reading.get(), POLLIN, 0};
  Inside seen;
  if (poll(&wait, 1, kOpenLimit) == 1 && read(reading.get(), &seen, sizeof seen) == sizeof seen) {
    inside = seen;
  }
  if (child > 0) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  return inside;
}

bool isTaken(LONG result) { return result == SCARD_E_SHARING_VIOLATION; }

void addInside(const Inside& inside, PcscView& view) {
  if (inside.result != SCARD_S_SUCCESS) {
    view.problem = isTaken(inside.result) ? kTaken : pcsc_stringify_error(inside.result);
    return;
  }
  for (const StateName& known : kStates) {
    if ((inside.state & known.flag) == 0) continue;
    view.state = known.name;
    break;
  }
  if (inside.protocol == SCARD_PROTOCOL_T0) view.protocol = "T=0";
  if (inside.protocol == SCARD_PROTOCOL_T1) view.protocol = "T=1";
}

}  // namespace

VirtualReader::VirtualReader(std::uint32_t index) : index_(index) {}

std::string VirtualReader::findIn(const std::vector<std::string>& readers, std::string& problem) {
  if (readers == listed_ && !name_.empty()) return name_;
  listed_ = readers;
  std::vector<std::string> taken;
  for (const std::string& reader : readers) {
    const Inside inside = lookInside(reader);
    if (inside.hasIndex && inside.index == index_) return name_ = reader;
    if (isTaken(inside.result)) taken.push_back(reader);
  }
  // No reader that answered has the index. If exactly one could not be asked, that reader must have
  // it, provided that the index is below the number of readers.
  if (taken.size() == 1 && index_ < readers.size()) return taken.front();
  problem = taken.empty() ? "pcscd lists no such reader" : kTaken;
  return name_ = {};
}

PcscView VirtualReader::look() {
  PcscView view;
  const Context context;
  if (context.result() != SCARD_S_SUCCESS) {
    view.problem = pcsc_stringify_error(context.result());
    return view;
  }
  view.reader = findIn(virtualReaders(context.get()), view.problem);
  if (view.reader.empty()) return view;
  const SCARD_READERSTATE state = stateOf(context.get(), view.reader);
  const auto now = std::chrono::steady_clock::now();
  if (last_.reader == view.reader && seen_ == state.dwEventState && now - opened_ < kLookAgain) {
    return last_;
  }
  seen_ = state.dwEventState;
  opened_ = now;
  view.atr.assign(state.rgbAtr, state.rgbAtr + state.cbAtr);
  if ((state.dwEventState & SCARD_STATE_PRESENT) == 0) {
    view.state = "absent";
  } else {
    view.state = "present";
    if ((state.dwEventState & SCARD_STATE_EXCLUSIVE) != 0) {
      view.problem = kTaken;
    } else {
      addInside(lookInside(view.reader), view);
    }
  }
  return last_ = view;
}

}  // namespace zelta::status
