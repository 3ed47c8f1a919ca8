// The driver's device: publishes one smart card reader interface per reader, makes the readers when
// the device enters its working power state, takes them down on every way out of it, and routes
// I/O controls and cancellations to them.
//
// Ownership: the framework keeps the device through its callback interfaces, the queue's callback
// object keeps it too. The device owns its readers; they live from `OnD0Entry` to the next
// `shutDown`. It holds the framework's device from `OnPrepareHardware` to `OnReleaseHardware`.
//
// Threads: the framework calls `ProcessIoControl` and `OnCancel` on any threads at the same time.
// It calls the power and PnP operations one at a time, but not the queries to stop or remove the
// device, nor the report of its removal; the power mutex serialises them all. An I/O control finds
// the readers inside the dispatch gate, without the device lock; a cancellation finds them under
// the device lock. They are made and destroyed under the power mutex with the gate closed, and put
// in place under the device lock.
//
// Failures are HRESULTs and request statuses; exceptions do not leave the operations.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "driver/device/dispatch_gate.h"
#include "driver/request/io_request.h"
#include "driver/request/module_reference.h"
#include "driver/request/reader_device.h"
#include "framework/com_object.h"
#include "framework/wdf.h"
#include "platform/sync/critical_section.h"
#include "reader/reader.h"

namespace zelta {

// Makes the reader with an index for its device; throws if it cannot be made.
using ReaderFactory =
    std::function<std::unique_ptr<Reader>(std::uint32_t index, ReaderDevice* device)>;

// Makes a reader whose card is behind an agent.
std::unique_ptr<Reader> createPipeReader(std::uint32_t index, ReaderDevice* device);

class CMyDevice final
    : public framework::ComObject<CMyDevice, framework::IPnpCallbackHardware,
                                  framework::IPnpCallback, framework::IRequestCallbackCancel>,
      public ReaderDevice {
 public:
  explicit CMyDevice(ReaderFactory readerFactory);

  // Creates the device, registers it with the framework and publishes its interfaces. A failure to
  // start the system's sockets or to publish an interface is only logged.
  [[nodiscard]] static framework::HRESULT CreateInstance(
      framework::IWDFDriver* driver, framework::IWDFDeviceInitialize* init,
      const ReaderFactory& readerFactory = createPipeReader);

  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  OnPrepareHardware(framework::IWDFDevice* wdfDevice) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  OnReleaseHardware(framework::IWDFDevice* wdfDevice) override;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE OnD0Entry(framework::IWDFDevice* wdfDevice,
                                                       framework::EnumValue previous) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE OnD0Exit(framework::IWDFDevice* wdfDevice,
                                                      framework::EnumValue next) override;
  void ZELTA_STDMETHODCALLTYPE OnSurpriseRemoval(framework::IWDFDevice* wdfDevice) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  OnQueryRemove(framework::IWDFDevice* wdfDevice) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE OnQueryStop(framework::IWDFDevice* wdfDevice) override;

  // Called when a request that a reader keeps waiting is cancelled.
  void ZELTA_STDMETHODCALLTYPE OnCancel(framework::IWDFIoRequest* request) override;

  // Refuses an I/O control, or gives it to its reader's handler, which then owns the request.
  void ProcessIoControl(framework::IWDFIoQueue* queue, framework::IWDFIoRequest* request,
                        framework::ULONG code, framework::SIZE_T inLength,
                        framework::SIZE_T outLength) noexcept;

  platform::CriticalSection& deviceLock() override ZELTA_RETURN_CAPABILITY(deviceLock_) {
    return deviceLock_;
  }
  framework::HRESULT queryInterface(framework::REFIID iid, void** out) override {
    return QueryInterface(iid, out);
  }

 private:
  // A handler takes the request and the lengths of its two buffers.
  using Handler = void (Reader::*)(IoRequest*, std::size_t, std::size_t);
  static Handler findHandler(std::uint32_t code);

  static constexpr std::int32_t kReaderCount = 1;
  using Readers = std::vector<std::unique_ptr<Reader>>;

  static void publishInterfaces(framework::IWDFDevice& wdfDevice);
  // One of the ways out of the working state; `announcement` is logged, null for none.
  [[nodiscard]] framework::HRESULT leaveWorkingState(const char* operation,
                                                     const char* announcement)
      ZELTA_EXCLUDES(powerMutex_);
  // Stops dispatch, then shuts the readers down and destroys them. The system ends its driver host,
  // with all devices in it, if a power, PnP or cancel callback takes longer than 60 seconds; so
  // nothing in here may wait for an agent.
  // Intentional: the device stays without readers until it is created afresh, and Winsock is
  // cleaned up once per call although it is started once per device.
  void shutDown() ZELTA_REQUIRES(powerMutex_) ZELTA_EXCLUDES(deviceLock_);
  [[nodiscard]] framework::HRESULT createReaders() ZELTA_REQUIRES(powerMutex_)
      ZELTA_EXCLUDES(deviceLock_);
  void addReader(std::uint32_t index) ZELTA_REQUIRES(powerMutex_) ZELTA_EXCLUDES(deviceLock_);
  // Lets no further I/O control in, ends the exchanges of those inside and waits until they have
  // left. The readers can no longer exchange anything. A cancel is given up after about two
  // seconds, but that does not bound this wait: a pipe call that never returns keeps it waiting.
  void stopDispatch() ZELTA_REQUIRES(powerMutex_) ZELTA_EXCLUDES(deviceLock_);
  void destroyReaders() ZELTA_REQUIRES(powerMutex_) ZELTA_EXCLUDES(deviceLock_);
  static void shutDownReader(Reader& reader);

  // The readers without the device lock. They change under both locks with nobody inside the gate,
  // so the power mutex or a pass suffices to read them; the analysis knows one lock per member.
  const Readers& readers() const ZELTA_REQUIRES(powerMutex_) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return readers_;
  }
  const Readers& readers(const DispatchGate::Pass& /*admitted*/) const
      ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return readers_;
  }

  // In my_device_io.cpp. `route` throws only while the request is neither completed nor waiting.
  void route(IoRequest& request, std::uint32_t code, std::size_t inLength, std::size_t outLength);
  Reader* findReader(const Readers& readers, IoRequest& request, std::uint32_t code);
  // None if the request's file does not say; the log has the reason.
  std::optional<std::uint32_t> getReaderInstanceId(IoRequest& request) noexcept;
  // Call with the device lock held or free: a request may be cancelled while its reader marks it.
  void cancel(IoRequest& request) noexcept;
  // Takes a request whose reader is not known out of the list that it may be in and completes it.
  void cancelUnrouted(IoRequest& request) ZELTA_REQUIRES(deviceLock_);
  void finish(IoRequest& request, framework::HRESULT status, const char* operation, int line);

  ModuleReference module_;  // given up last
  // Serialises the power and PnP operations.
  platform::Mutex powerMutex_ ZELTA_ACQUIRED_BEFORE(deviceLock_);
  platform::CriticalSection deviceLock_;
  framework::ComPtr<framework::IWDFDevice> wdfDevice_ ZELTA_GUARDED_BY(powerMutex_);
  Readers readers_ ZELTA_GUARDED_BY(deviceLock_);  // by reader index
  // How many to make; none after the first shutdown.
  std::int32_t numReaders_ ZELTA_GUARDED_BY(powerMutex_) = kReaderCount;

  DispatchGate gate_;
  const ReaderFactory readerFactory_;
};

}  // namespace zelta
