// Powers the card and applies its answer to reset.
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "diagnostics/log.h"
#include "driver/request/memory_util.h"
#include "reader/atr.h"
#include "reader/reader.h"

namespace zelta {

namespace {

constexpr char kPowerHandler[] = "Reader::IoSmartCardPower";

// The query flag of the paths that want the card reset.
constexpr bool kWithReset = true;

}  // namespace

void Reader::IoSmartCardPower(IoRequest* request, std::size_t /*inLength*/,
                              std::size_t /*outLength*/) {
  if (request == nullptr) {
    logError(kNoError, "[POWR]IOCTL_SMARTCARD_POWER: invalid request");
    return;
  }
  logInfo("[POWR]IOCTL_SMARTCARD_POWER");
  if (!hasIntegerInput(*request, "[POWR]IOCTL_SMARTCARD_POWER", kPowerHandler)) return;
  switch (MemoryUtil::getInt(*request)) {
    case SCARD_POWER_DOWN:
      powerDown(*request);
      break;
    case SCARD_COLD_RESET:
      reset(*request, "SCARD_COLD_RESET");
      break;
    case SCARD_WARM_RESET:
      reset(*request, "SCARD_WARM_RESET");
      break;
    default:
      // Intentional: an unknown operation succeeds and does nothing.
      finish(*request, status::kSuccess, kPowerHandler, __LINE__);
      break;
  }
}

void Reader::powerDown(IoRequest& request) {
  logInfo("[POWR]SCARD_POWER_DOWN");
  currentProtocol_.store(0, std::memory_order_relaxed);
  setCardReady(0);
  setState(SCARD_SWALLOWED);
  finish(request, status::kSuccess, kPowerHandler, __LINE__);
}

void Reader::reset(IoRequest& request, const char* name) {
  logInfo("[POWR]%s", name);
  currentProtocol_.store(0, std::memory_order_relaxed);
  Bytes atr;
  const QueryResult result = QueryAtr(atr, kWithReset);
  if (result == QueryResult::kSuccess) {
    setCardReady(1);
    setState(SCARD_NEGOTIABLE);
    logInfo("[POWR]State:%08X", SCARD_NEGOTIABLE);
    MemoryUtil::setBuffer(device(), request, atr);
    return;
  }
  setCardReady(0);
  const bool cardThere = result != QueryResult::kTimeout && state() > SCARD_ABSENT;
  const framework::HRESULT status = cardThere ? status::kUnrecognizedMedia : status::kNoMedia;
  const std::uint32_t newState = cardThere ? SCARD_PRESENT : SCARD_ABSENT;
  setState(newState);
  logInfo("[POWR]Status:%08X State:%08X", static_cast<std::uint32_t>(status), newState);
  finish(request, status, kPowerHandler, __LINE__);
}

bool Reader::initializeProtocols() {
  return initializeProtocols([this](Bytes& atr) { return QueryAtr(atr, kWithReset); });
}

bool Reader::initializeProtocols(const std::function<QueryResult(Bytes&)>& queryAtr) {
  logInfo("Initializing protocols...");
  availableProtocols_.store(0, std::memory_order_relaxed);
  Bytes atr;
  const QueryResult result = queryAtr(atr);
  if (result != QueryResult::kSuccess || atr.size() < kMinAtrSize) {
    logError(kNoError, "ATR query failed (size = %d). Failed to initialize protocols.",
             static_cast<int>(atr.size()));
    return false;
  }
  if (!hasValidInitialByte(atr)) {
    logError(kNoError, "ATR has invalid initial byte TS");
    return false;
  }
  applyAtr(parseAtr(atr));
  return true;
}

void Reader::applyAtr(const AtrValues& values) {
  if (values.rates.has_value()) {
    const AtrRates& rates = *values.rates;
    logInfo("TA(1): Fi %d; Di %d; Fmax %dkHz", static_cast<int>(rates.fi),
            static_cast<int>(rates.di), static_cast<int>(rates.maxClock));
    maxClock_.store(rates.maxClock, std::memory_order_relaxed);
    defaultDataRate_.store(rates.defaultDataRate, std::memory_order_relaxed);
    maxDataRate_.store(rates.maxDataRate, std::memory_order_relaxed);
  }
  if (values.ifsc.has_value()) {
    ifsc_.store(*values.ifsc, std::memory_order_relaxed);
    logInfo("TA(3): IFSC: %d", static_cast<int>(*values.ifsc));
  }
  if (values.lastProtocol.has_value()) {
    // Intentional: the protocol's number, not its mask value.
    currentProtocol_.store(*values.lastProtocol, std::memory_order_relaxed);
  }
  availableProtocols_.store(values.availableProtocols, std::memory_order_relaxed);
}

}  // namespace zelta
