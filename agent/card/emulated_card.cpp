#include "agent/card/emulated_card.h"

#include <libcacard.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <utility>

#include "agent/card/nss_database.h"
#include "agent/program/wrong_configuration.h"
#include "contract/bytes.h"
#include "platform/process/never_destroyed.h"
#include "platform/process/wipe.h"

namespace zelta::agent {

namespace {

constexpr int kLongestAtr = 64;
constexpr std::size_t kInstructionAt = 1;
constexpr std::uint8_t kVerify = 0x20;
// The data of an extended length and the status word.
constexpr int kLongestResponse = 65536 + 2;

struct EventEnd {
  void operator()(VEvent* event) const { vevent_delete(event); }
};
using Event = std::unique_ptr<VEvent, EventEnd>;

struct ReaderEnd {
  void operator()(VReader* reader) const { vreader_free(reader); }
};
using ReaderReference = std::unique_ptr<VReader, ReaderEnd>;

// The library queues an event for whatever this program does to its card. Nobody else reads the
// queue, so it is emptied each time. Returns the first reader that an event names.
ReaderReference takeEvents() {
  ReaderReference reader;
  for (Event event(vevent_get_next_vevent()); event != nullptr;
       event.reset(vevent_get_next_vevent())) {
    if (event->type == VEVENT_READER_INSERT && reader == nullptr) {
      reader.reset(vreader_reference(event->reader));
    }
  }
  return reader;
}

// Separators of the library's option text.
void refuseSeparators(const std::string& text, const char* what) {
  if (text.find_first_of(",()\" \t") != std::string::npos) {
    throw WrongConfiguration(std::string(what) + " '" + text +
                             "' has a character that the card emulation cannot take");
  }
}

std::string optionText(const std::string& database, const std::vector<std::string>& nicknames) {
  if (database.find('"') != std::string::npos) refuseSeparators(database, "the folder");
  std::string text = "db=\"sql:" + database + "\" use_hw=no soft=(,Virtual Reader,CAC,";
  for (const std::string& nickname : nicknames) {
    refuseSeparators(nickname, "the certificate nickname");
    text += "," + nickname;
  }
  return text + ")";
}

// The library answers a wrong PIN with "conditions of use not satisfied", which software takes for
// a broken card. A card says that the verification failed; the PIN has no count of tries.
Bytes correctWrongPin(const Bytes& command, Bytes response) {
  const bool verifies = command.size() > kInstructionAt && command[kInstructionAt] == kVerify;
  const bool refused = response == Bytes{0x69, 0x85};
  return verifies && refused ? Bytes{0x63, 0xCF} : std::move(response);
}

}  // namespace

struct EmulatedCard::Reader {
  ReaderReference reference;
};

EmulatedCard::EmulatedCard(Settings settings) : settings_(std::move(settings)) {}

EmulatedCard::~EmulatedCard() { stop(); }

void EmulatedCard::start(CardListener& listener) {
  const std::vector<std::string> nicknames =
      checkCardDatabase(settings_.database, settings_.pin, settings_.certificates);
  // The library keeps pointers into the text of its options.
  static platform::NeverDestroyed<std::string> options(optionText(settings_.database, nicknames));
  if (vcard_emul_init(vcard_emul_options(options.get().c_str())) != VCARD_EMUL_OK) {
    throw std::runtime_error("the card emulation does not start with the database " +
                             settings_.database);
  }
  reader_ = std::make_unique<Reader>(Reader{takeEvents()});
  if (reader_->reference == nullptr) {
    throw std::runtime_error("the card emulation made no card of the database " +
                             settings_.database);
  }
  listener_ = &listener;
  const platform::MutexLock acting(acting_);
  in_ = settings_.cardIn;
  if (in_) {
    ++insertions_;
    listener.cardInserted();
  } else {
    vcard_emul_force_card_remove(reader_->reference.get());
    takeEvents();
  }
}

void EmulatedCard::stop() {
  const platform::MutexLock acting(acting_);
  reader_.reset();
}

Bytes EmulatedCard::powerOn() {
  const std::uint64_t insertion = insertions_;
  std::array<unsigned char, kLongestAtr> buffer{};
  int length = kLongestAtr;
  atr_.clear();
  if (vreader_power_on(reader_->reference.get(), buffer.data(), &length) == VREADER_OK &&
      length > 0) {
    atr_.assign(buffer.begin(), buffer.begin() + length);
    poweredIn_ = insertion;
  }
  return atr_;
}

Bytes EmulatedCard::reset() {
  const platform::MutexLock lock(card_);
  return powerOn();
}

Bytes EmulatedCard::atr() {
  const platform::MutexLock lock(card_);
  if (atr_.empty() || poweredIn_ != insertions_) return powerOn();
  return atr_;
}

Bytes EmulatedCard::transmit(const Bytes& command) {
  const platform::MutexLock lock(card_);
  // A card that was put in again has no power yet, and would still count its PIN as verified.
  if (poweredIn_ != insertions_ && powerOn().empty()) return {};
  platform::SecretBytes sent(command);
  Bytes response(kLongestResponse);
  int length = kLongestResponse;
  const VReaderStatus status =
      vreader_xfr_bytes(reader_->reference.get(), sent.data(), static_cast<int>(sent.size()),
                        response.data(), &length);
  if (status != VREADER_OK || length <= 0) return {};
  response.resize(static_cast<std::size_t>(length));
  return correctWrongPin(command, std::move(response));
}

std::string EmulatedCard::insert() {
  const platform::MutexLock acting(acting_);
  if (reader_ == nullptr) return "the card emulation does not run";
  if (in_) return "a card is in already";
  if (vcard_emul_force_card_insert(reader_->reference.get()) != VCARD_EMUL_OK) {
    return "the card emulation refuses the card";
  }
  takeEvents();
  in_ = true;
  ++insertions_;
  listener_->cardInserted();
  return {};
}

std::string EmulatedCard::remove() {
  const platform::MutexLock acting(acting_);
  if (reader_ == nullptr) return "the card emulation does not run";
  if (!in_) return "no card is in";
  // Announced first, so that no command finds the card gone before that is known.
  listener_->cardRemoved();
  in_ = false;
  if (vcard_emul_force_card_remove(reader_->reference.get()) != VCARD_EMUL_OK) {
    return "the card emulation does not let go of the card";
  }
  takeEvents();
  return {};
}

}  // namespace zelta::agent
