// One virtual smart card reader as the smart card service sees it: its card state, the protocol,
// the values read from the card's ATR, and the requests that wait for a card to come or go. What
// needs the real card is left to the deriving class.
//
// Ownership: the device owns its readers and outlives them. Requests are the framework's; a
// waiting one is in a list without a reference of the list's own.
//
// Threads: the handlers run on several dispatch threads at once; `IoCancelRequest` runs with the
// device lock held. State and values are atomics, written by exchange and read plainly.
// Locks, in the order in which they nest (docs/threads.md): presence mutex, device lock, request
// list mutex; the exchange mutex is a leaf.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "driver/io_request.h"
#include "driver/reader_device.h"
#include "platform/sync.h"
#include "reader/pending_requests.h"

namespace zelta {

// What a query of the agent gives.
enum class QueryResult : std::uint32_t { Success = 0, Failure = 1, Timeout = 2 };

class Reader {
 public:
  // Throws std::invalid_argument for a null device.
  Reader(std::uint32_t unitNumber, ReaderDevice* device);
  virtual ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Asks the card: the answer to a command APDU; the ATR (with or without a reset of the card);
  // whether a card answers. Each is one exchange with the agent and blocks for at most about five
  // seconds. Callers hold the exchange mutex: two exchanges of a reader never overlap.
  virtual QueryResult QueryTransmit(const std::vector<std::uint8_t>& command,
                                    std::vector<std::uint8_t>& response) = 0;
  virtual QueryResult QueryAtr(std::vector<std::uint8_t>& atr, bool reset) = 0;
  virtual QueryResult CheckATR() = 0;
  // Tells the agent that a protocol was selected; true when it was sent.
  virtual bool NotifyCardReady() = 0;
  // Marks the card absent and completes every waiting request as cancelled.
  virtual void shutdown() = 0;
  // The body of the thread that serves the agent; 0 when it ended because it was told to.
  virtual std::uint32_t serverThread() = 0;
  // An attribute of the vendor's own; completes the request.
  virtual void IoSmartCardGetVendorDefinedAttribute(std::uint32_t tag, IoRequest& request);

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

  const std::string& vendorName() const { return vendorName_; }
  const std::string& ifdType() const { return ifdType_; }
  std::uint32_t state() const { return state_.load(std::memory_order_relaxed); }

 protected:
  // Reads the ATR and sets protocols, IFSC, clock and data rates from it; false where there was
  // no usable ATR. Takes the exchange mutex.
  bool initializeProtocols();

  void setState(std::uint32_t state) { state_.exchange(state); }
  void setCardReady(std::uint32_t ready) { cardReady_.store(ready, std::memory_order_relaxed); }

  ReaderDevice& device() { return *device_; }

  // Held across a presence check with the queueing of its request, and across an agent's event:
  // an event that comes between check and queueing finds the request in its list.
  platform::Mutex presenceMutex_;

  PendingRequests pendingRemove_;     // edited under the device lock
  platform::Mutex requestListMutex_;  // held as well when an insert request is added
  PendingRequests pendingInsert_;     // edited under the device lock
  platform::ConditionVariable insertRequestCondition_;  // broadcast when one is added
};

}  // namespace zelta
