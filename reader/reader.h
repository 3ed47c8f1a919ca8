// One virtual smart card reader as the smart card service sees it: its card state, the protocol,
// the values read from the card's ATR, and the requests that wait for a card to come or go. A
// deriving class talks to the card itself.
//
// Ownership: the device owns its readers and outlives them. Requests are the framework's; a
// waiting one is in a list without a reference of the list's own. Requests that still wait when
// the reader is destroyed are not completed by it; `shutdown` comes first.
//
// Failures are statuses in the request. A handler that throws (std::bad_alloc, or what a query
// throws) has neither completed nor queued its request: the caller completes it.
//
// Threads: the handlers run on several dispatch threads at once; `IoCancelRequest` runs with the
// device lock held. State and values are atomics, written by exchange and read plainly.
//
// Locks: docs/threads.md has their order. No lock is held while a handler asks the agent.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "diagnostics/log.h"
#include "driver/request/io_request.h"
#include "driver/request/reader_device.h"
#include "platform/process/wipe.h"
#include "platform/sync/sync.h"
#include "reader/atr.h"
#include "reader/response_buffer.h"
#include "reader/waiting_requests.h"

namespace zelta {

// The value of an attribute that is a number or a text.
using AttributeValue = std::variant<std::uint32_t, std::string>;

// The result of a query to the agent.
enum class QueryResult : std::uint32_t { kSuccess = 0, kFailure = 1, kTimeout = 2 };

class Reader {
 public:
  // Throws std::invalid_argument for a null device.
  Reader(std::uint32_t unitNumber, ReaderDevice* device);
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // The virtual operations keep this order.
  virtual ~Reader();

  // Exchange a command APDU, get the ATR (with or without a reset of the card), or check whether a
  // card answers. Any thread; each call is one exchange with the agent, and exchanges do not
  // overlap. Each blocks for at most about five seconds, and as long again while another exchange
  // is under way.
  [[nodiscard]] virtual QueryResult QueryTransmit(const Bytes& command,
                                                  ResponseBuffer& response) = 0;
  [[nodiscard]] virtual QueryResult QueryAtr(Bytes& atr, bool reset) = 0;
  [[nodiscard]] virtual QueryResult CheckATR() = 0;
  // Tells the agent that a protocol was selected; true if that was sent.
  [[nodiscard]] virtual bool NotifyCardReady() = 0;
  // Marks the card absent and completes every waiting request as cancelled.
  virtual void shutdown() = 0;
  // The body of the thread that serves the agent; 0 if it was asked to end.
  virtual std::uint32_t serverThread() = 0;
  // An attribute of the vendor's own; completes the request.
  virtual void IoSmartCardGetVendorDefinedAttribute(std::uint32_t tag, IoRequest& request);
  // Marks the card absent for good. Then makes the current exchange, wherever it is stuck, and
  // every later one fail, without waiting for a lock that is held during an exchange. The device
  // calls it before it waits for the handlers and before `shutdown`.
  virtual void endExchanges() noexcept = 0;

  // One handler per I/O control. Each completes the request exactly once, or keeps it waiting,
  // marked cancelable. Lengths are in bytes. A null request is logged and nothing else happens.
  void IoSmartCardGetAttribute(IoRequest* request, std::size_t inLength, std::size_t outLength);
  void IoSmartCardSetAttribute(IoRequest* request, std::size_t inLength, std::size_t outLength);
  void IoSmartCardGetState(IoRequest* request, std::size_t inLength, std::size_t outLength);
  void IoSmartCardIsPresent(IoRequest* request, std::size_t inLength, std::size_t outLength);
  void IoSmartCardIsAbsent(IoRequest* request, std::size_t inLength, std::size_t outLength);
  void IoSmartCardPower(IoRequest* request, std::size_t inLength, std::size_t outLength);
  void IoSmartCardSetProtocol(IoRequest* request, std::size_t inLength, std::size_t outLength);
  void IoSmartCardTransmit(IoRequest* request, std::size_t inLength, std::size_t outLength);
  // Completes a request that the framework cancels. The caller holds the device lock.
  void IoCancelRequest(IoRequest* request);
  // Takes a waiting request out of whichever list holds it, without completing it; false if none
  // does. The caller holds the device lock.
  bool stopWaiting(IoRequest& request);

  const std::string& vendorName() const { return vendorName_; }
  const std::string& ifdType() const { return ifdType_; }
  std::uint32_t unitNumber() const { return unitNumber_; }
  std::uint32_t state() const {
    return absentForGood_.load(std::memory_order_acquire) ? SCARD_ABSENT
                                                          : state_.load(std::memory_order_relaxed);
  }

 protected:
  // Reads the ATR and sets protocols, IFSC, clock and data rates from it; false if there was no
  // usable ATR, and then no protocol is available.
  [[nodiscard]] bool initializeProtocols();
  // Does the same with the ATR from `queryAtr`, which resets the card.
  [[nodiscard]] bool initializeProtocols(const std::function<QueryResult(Bytes&)>& queryAtr);

  // Logs and answers an attribute as its kind says; completes the request.
  void answerAttribute(IoRequest& request, const Attribute& attribute, const AttributeValue& value,
                       LogLevel level = LogLevel::kInfo);

  // Makes the state absent for good, whatever a handler that is still running sets.
  void markAbsentForGood() { absentForGood_.store(true, std::memory_order_release); }
  void setState(std::uint32_t state) { state_.exchange(state); }
  void setCardReady(std::uint32_t ready) { cardReady_.store(ready, std::memory_order_relaxed); }
  std::uint32_t cardReady() const { return cardReady_.load(std::memory_order_relaxed); }
  std::uint32_t currentProtocol() const { return currentProtocol_.load(std::memory_order_relaxed); }

  ReaderDevice& device() { return *device_; }
  WaitingRequests& waiting() { return waiting_; }

 private:
  using Value = std::atomic<std::uint32_t>;

  // Never throws: it follows a completion, after which nobody could answer for the request.
  void notifyCardReady() noexcept;

  // Completes with the status and no output, under the device lock. `handler` is the lock's name.
  void finish(IoRequest& request, framework::HRESULT status, const char* handler, int line);
  // True if the request has no input memory or at least four bytes of it; otherwise the request has
  // been refused.
  bool hasIntegerInput(IoRequest& request, const char* operation, const char* handler);
  void refuseShortInput(IoRequest& request, std::size_t size, const char* operation,
                        const char* handler);
  // Call after the request was put into its list.
  void markCancelable(IoRequest& request, const char* failureText)
      ZELTA_REQUIRES(waiting_.deviceLock());

  void powerDown(IoRequest& request);
  void reset(IoRequest& request, const char* name);
  void applyAtr(const AtrValues& values);
  // False if the mask accepts no offered protocol.
  [[nodiscard]] bool chooseProtocol(std::uint32_t mask);
  [[nodiscard]] bool storeProtocol(std::uint32_t protocol);
  struct TransmitInput {
    std::uint32_t protocol;         // of the header
    platform::SecretBytes command;  // the APDU after it
  };
  // None if the request has no such input.
  static std::optional<TransmitInput> readTransmit(IoRequest& request);
  // The request's output takes `outLength` bytes; 0 if that is not known.
  void transmit(IoRequest& request, const Bytes& command, std::size_t outLength);

  struct AttributeSource;
  static const AttributeSource kAttributeSources[];
  void answerCurrentProtocol(IoRequest& request, const Attribute& attribute);
  void answerAtr(IoRequest& request, const Attribute& attribute);

  const std::uint32_t unitNumber_;
  Value cardReady_{0};  // written only
  Value state_{SCARD_ABSENT};
  // Intentionally of two kinds: selecting a protocol stores its mask value (1 for T=0, 2 for T=1)
  // and power stores 0, but reading an ATR stores the protocol's number (0 for T=0, 1 for T=1).
  // Every reader of the value uses it as stored.
  Value currentProtocol_{0};
  Value availableProtocols_{0};   // bit T for every protocol T of the ATR
  Value ifsc_{0};                 // bytes
  Value maxClock_{5000};          // kHz
  Value defaultDataRate_{10752};  // bit/s
  Value maxDataRate_{10752};      // bit/s
  ReaderDevice* const device_;    // not owned

  WaitingRequests waiting_;

 protected:
  Value rpcType_{0};

 private:
  const std::string vendorName_;
  const std::string ifdType_;
  const Value reportedUnitNumber_;  // what the attribute answers
  std::atomic<bool> absentForGood_{false};
};

}  // namespace zelta
