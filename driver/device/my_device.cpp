// The device's creation and its power and PnP operations.
#include "driver/device/my_device.h"

#include "agent_link/pipe_reader.h"
#include "contract/class_ids.h"
#include "contract/status.h"
#include "diagnostics/traced_lock.h"
#include "driver/device/my_queue.h"
#include "driver/device/narrow_text.h"
#include "driver/device/reader_index.h"
#include "driver/request/entry_point.h"
#include "platform/process/ports.h"

namespace zelta {

namespace {

using framework::ComPtr;
using framework::HRESULT;

constexpr std::uint16_t kWinsockVersion = 0x0202;  // 2.2

constexpr char kD0Entry[] = "CMyDevice::OnD0Entry";

constexpr std::uint32_t code(HRESULT result) { return static_cast<std::uint32_t>(result); }

// Gives the device object to the framework. If that fails, `wdfDevice` stays null.
HRESULT registerDevice(CMyDevice& device, framework::IWDFDriver& driver,
                       framework::IWDFDeviceInitialize& init,
                       ComPtr<framework::IWDFDevice>& wdfDevice) {
  logInfo("SetLockingConstraint");
  init.SetLockingConstraint(framework::kCallbackConstraintNone);
  logInfo("QueryInterface");
  ComPtr<framework::IUnknown> unknown;
  const HRESULT result = device.QueryInterface(framework::IUnknown::iid, unknown.putVoid());
  if (framework::failed(result)) return result;
  logInfo("CreateDevice");
  return driver.CreateDevice(&init, unknown.get(), wdfDevice.put());
}

void startWinsock() {
  const std::int32_t result = platform::ports().winsock->startup(kWinsockVersion);
  if (result != 0) logError(static_cast<std::uint32_t>(result), "Error at WSAStartup");
}

}  // namespace

std::unique_ptr<Reader> createPipeReader(std::uint32_t index, ReaderDevice* device) {
  return std::make_unique<PipeReader>(index, device);
}

CMyDevice::CMyDevice(ReaderFactory readerFactory) : readerFactory_(std::move(readerFactory)) {}

HRESULT CMyDevice::CreateInstance(framework::IWDFDriver* driver,
                                  framework::IWDFDeviceInitialize* init,
                                  const ReaderFactory& readerFactory) {
  return runEntryPoint("CMyDevice::CreateInstance", [&]() -> HRESULT {
    if (driver == nullptr) {
      logError(code(status::kInvalidArgument), "[CI]Invalid IWDFDriver");
      return status::kInvalidArgument;
    }
    if (init == nullptr) {
      logError(code(status::kInvalidArgument), "[CI]Invalid IWDFDeviceInitialize");
      return status::kInvalidArgument;
    }
    const auto device = ComPtr<CMyDevice>::adopt(framework::createObject<CMyDevice>(readerFactory));
    if (!device) {
      logError(code(status::kOutOfMemory), "[CI]Device is null");
      return status::kOutOfMemory;
    }
    ComPtr<framework::IWDFDevice> wdfDevice;
    const HRESULT result = registerDevice(*device.get(), *driver, *init, wdfDevice);
    startWinsock();
    // Without the framework's device there is nothing to publish interfaces on.
    if (wdfDevice) publishInterfaces(*wdfDevice.get());
    return result;
  });
}

void CMyDevice::publishInterfaces(framework::IWDFDevice& wdfDevice) {
  static constexpr framework::GUID kInterface = kSmartCardReaderInterface;
  for (std::int32_t index = 0; index < kReaderCount; ++index) {
    const std::wstring name = readerReferenceString(static_cast<std::uint32_t>(index));
    logInfo("CreateDeviceInterface [device name: %s]", narrowText(name).c_str());
    const HRESULT result = wdfDevice.CreateDeviceInterface(&kInterface, name.c_str());
    if (framework::failed(result)) logError(code(result), "CreateDeviceInterface Failed");
  }
}

HRESULT CMyDevice::OnPrepareHardware(framework::IWDFDevice* wdfDevice) {
  return runEntryPoint("CMyDevice::OnPrepareHardware", [&]() -> HRESULT {
    if (wdfDevice == nullptr) {
      logError(code(status::kInvalidArgument), "[PrepareHW]Invalid device");
      return status::kInvalidArgument;
    }
    ComPtr<framework::IWDFDevice> device(wdfDevice);  // then the former one, released unlocked
    const platform::MutexLock lock(powerMutex_);
    if (wdfDevice != wdfDevice_.get()) std::swap(device, wdfDevice_);
    return CMyQueue::CreateInstance(wdfDevice, this);
  });
}

HRESULT CMyDevice::OnReleaseHardware(framework::IWDFDevice* wdfDevice) {
  return runEntryPoint("CMyDevice::OnReleaseHardware", [&]() -> HRESULT {
    if (wdfDevice == nullptr) {
      logError(code(status::kInvalidArgument), "[ReleaseHW]Invalid device");
      return status::kInvalidArgument;
    }
    ComPtr<framework::IWDFDevice> released;  // unlocked
    const platform::MutexLock lock(powerMutex_);
    if (wdfDevice == wdfDevice_.get()) std::swap(released, wdfDevice_);
    return status::kSuccess;
  });
}

HRESULT CMyDevice::OnD0Entry(framework::IWDFDevice* /*wdfDevice*/,
                             framework::EnumValue /*previous*/) {
  return runEntryPoint(kD0Entry, [&] {
    const platform::MutexLock power(powerMutex_);
    stopDispatch();
    const HRESULT result = createReaders();
    gate_.open();
    return result;
  });
}

HRESULT CMyDevice::createReaders() {
  destroyReaders();
  {
    const TracedLock lock(kD0Entry, deviceLock_, __LINE__);
    readers_.reserve(static_cast<std::size_t>(numReaders_));
  }
  logInfo("%s: NumReaders[%d]", kD0Entry, numReaders_);
  for (std::int32_t index = 0; index < numReaders_; ++index) {
    try {
      addReader(static_cast<std::uint32_t>(index));
    } catch (const std::exception& failure) {
      logError(code(status::kInvalidArgument), "Could not create reader[%d]: %s", index,
               failure.what());
      return status::kInvalidArgument;  // those before it stay
    }
  }
  return status::kSuccess;
}

void CMyDevice::addReader(std::uint32_t index) {
  std::unique_ptr<Reader> made = readerFactory_(index, this);
  const Reader* reader = made.get();
  {
    const TracedLock lock(kD0Entry, deviceLock_, __LINE__);
    readers_.push_back(std::move(made));  // into reserved room
  }
  if (reader == nullptr) return;  // dispatch refuses what is sent to it
  const int number = static_cast<int>(index);
  logInfo("%s: reader[%d] initialized, vendor name=%s", kD0Entry, number,
          reader->vendorName().c_str());
  logInfo("%s: reader[%d] initialized, vendor Ifd type=%s", kD0Entry, number,
          reader->ifdType().c_str());
}

HRESULT CMyDevice::OnD0Exit(framework::IWDFDevice* /*wdfDevice*/, framework::EnumValue /*next*/) {
  return leaveWorkingState("CMyDevice::OnD0Exit", nullptr);
}

void CMyDevice::OnSurpriseRemoval(framework::IWDFDevice* /*wdfDevice*/) {
  (void)leaveWorkingState("CMyDevice::OnSurpriseRemoval", "OnSurpriseRemoval");
}

HRESULT CMyDevice::OnQueryRemove(framework::IWDFDevice* /*wdfDevice*/) {
  return leaveWorkingState("CMyDevice::OnQueryRemove", "OnQueryRemove");
}

HRESULT CMyDevice::OnQueryStop(framework::IWDFDevice* /*wdfDevice*/) {
  return leaveWorkingState("CMyDevice::OnQueryStop", "OnQueryStop");
}

HRESULT CMyDevice::leaveWorkingState(const char* operation, const char* announcement) {
  return runEntryPoint(operation, [&] {
    const platform::MutexLock power(powerMutex_);
    if (announcement != nullptr) logInfo("%s", announcement);
    shutDown();
    return status::kSuccess;
  });
}

void CMyDevice::shutDown() {
  const TimedSection section("CMyDevice::shutDown");
  stopDispatch();
  // Intentional: loops over the count, not the vector. A reader that could not be made is missing
  // from the vector.
  const Readers& working = readers();
  for (std::size_t index = 0; index < static_cast<std::size_t>(numReaders_); ++index) {
    if (index < working.size() && working[index] != nullptr) shutDownReader(*working[index]);
  }
  destroyReaders();
  numReaders_ = 0;
  (void)platform::ports().winsock->cleanup();
}

void CMyDevice::stopDispatch() {
  gate_.close();
  for (const std::unique_ptr<Reader>& reader : readers()) {
    if (reader != nullptr) reader->endExchanges();
  }
  gate_.awaitEmpty();
}

void CMyDevice::shutDownReader(Reader& reader) {
  try {
    reader.shutdown();
  } catch (const std::exception&) {
    (void)statusOfException("CMyDevice::shutDown");  // the others are still shut down
  }
}

void CMyDevice::destroyReaders() {
  Readers leaving;
  {
    const TracedLock lock("CMyDevice::destroyReaders", deviceLock_, __LINE__);
    leaving.swap(readers_);
  }
  for (std::unique_ptr<Reader>& reader : leaving) reader.reset();
}

}  // namespace zelta
