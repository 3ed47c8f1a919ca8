#include "tests/doubles/framework/fake_framework.h"

#include <new>
#include <utility>

#include "contract/status.h"

namespace zelta::test {

using framework::HRESULT;
using platform::MutexLock;

namespace {

// The framework reports its own lack of memory as a status.
template <typename Body>
HRESULT withoutExceptions(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return status::kOutOfMemory;
  }
}

template <typename Interface>
void complainAboutReferences(const char* name, const FakeWdfObject<Interface>& object,
                             std::vector<std::string>& texts) {
  if (object.givenUp() && object.driversReferences() != 0) {
    texts.push_back(std::string(name) + " with " + std::to_string(object.driversReferences()) +
                    " references left");
  }
}

void complainAboutRequest(const FakeWdfRequest& request, std::vector<std::string>& texts) {
  if (request.completions() != 1) {
    texts.push_back("request completed " + std::to_string(request.completions()) + " times");
  }
  if (request.driversReferencesInAll() != 0) {
    texts.push_back("request with " + std::to_string(request.driversReferencesInAll()) +
                    " references left");
  }
  if (request.hasContext() && request.cleanups() != 1) {
    texts.push_back("context cleaned " + std::to_string(request.cleanups()) + " times");
  }
}

}  // namespace

FakeWdfQueue::FakeWdfQueue(Violations& noted, framework::IUnknown* queueCallback,
                           const Settings& asked)
    : FakeWdfObject("queue", noted), settings(asked) {
  queueCallback->QueryInterface(framework::IQueueCallbackDeviceIoControl::iid, callback.putVoid());
}

HRESULT FakeWdfDevice::CreateIoQueue(framework::IUnknown* queueCallback, BOOL defaultQueue,
                                     EnumValue dispatchType, BOOL powerManaged,
                                     BOOL allowZeroLength, framework::IWDFIoQueue** queue) {
  touch("CreateIoQueue");
  *queue = nullptr;
  if (framework::failed(results_.createQueue)) return results_.createQueue;
  return withoutExceptions([&] {
    queues.push_back(std::make_unique<FakeWdfQueue>(
        violations, queueCallback,
        FakeWdfQueue::Settings{defaultQueue, dispatchType, powerManaged, allowZeroLength}));
    *queue = queues.back()->reference();
    return framework::kOk;
  });
}

HRESULT FakeWdfDevice::CreateDeviceInterface(const GUID* interfaceClass, const wchar_t* name) {
  touch("CreateDeviceInterface");
  return withoutExceptions([&] {
    interfaces.push_back({*interfaceClass, name});
    return results_.createInterface;
  });
}

void FakeWdfDevice::remove() {
  for (const auto& queue : queues) {
    queue->callback.reset();
    queue->giveUp();
  }
  callback.reset();
  giveUp();
}

HRESULT FakeWdfDriver::CreateDevice(framework::IWDFDeviceInitialize* init,
                                    framework::IUnknown* callback, framework::IWDFDevice** device) {
  touch("CreateDevice");
  lastInit = init;
  *device = nullptr;
  if (framework::failed(results_.createDevice)) return results_.createDevice;
  return withoutExceptions([&] {
    devices.push_back(std::make_unique<FakeWdfDevice>(violations, results_, callback));
    *device = devices.back()->reference();
    return framework::kOk;
  });
}

FakeFramework::FakeFramework(framework::ComPtr<framework::IDriverEntry> entry)
    : entry_(std::move(entry)) {}

FakeFramework::~FakeFramework() = default;

HRESULT FakeFramework::enterD0() {
  return pnp()->OnD0Entry(device(), framework::kPowerDeviceD3Final);
}

HRESULT FakeFramework::exitD0() {
  return pnp()->OnD0Exit(device(), framework::kPowerDeviceD3Final);
}

void FakeFramework::deinitialize() {
  entry_->OnDeinitialize(&driver);
  driver.giveUp();
  entry_.reset();
}

bool FakeFramework::bringUp() {
  return framework::succeeded(initialize()) && framework::succeeded(addDevice()) &&
         framework::succeeded(prepareHardware()) && framework::succeeded(enterD0());
}

void FakeFramework::takeDown() {
  if (device() == nullptr || device()->givenUp()) return;
  exitD0();
  releaseHardware();
  removeDevice();
}

FakeWdfDevice* FakeFramework::device() const {
  return driver.devices.empty() ? nullptr : driver.devices.back().get();
}

FakeWdfRequest& FakeFramework::makeRequest(const RequestSetup& setup) {
  auto request = std::make_unique<FakeWdfRequest>(violations, setup);
  FakeWdfRequest& made = *request;
  const MutexLock lock(mutex_);
  requests_.push_back(std::move(request));
  return made;
}

void FakeFramework::dispatch(FakeWdfRequest& request) {
  queue().callback->OnDeviceIoControl(&queue(), &request, request.code(), request.inputSize(),
                                      request.outputSize());
}

FakeWdfRequest& FakeFramework::dispatch(const RequestSetup& setup) {
  FakeWdfRequest& request = makeRequest(setup);
  dispatch(request);
  return request;
}

std::vector<std::string> FakeFramework::complaints() const {
  std::vector<std::string> texts = violations.all();
  complainAboutReferences("driver", driver, texts);
  for (const auto& device : driver.devices) {
    complainAboutReferences("device", *device, texts);
    for (const auto& queue : device->queues) complainAboutReferences("queue", *queue, texts);
  }
  const MutexLock lock(mutex_);
  for (const auto& request : requests_) complainAboutRequest(*request, texts);
  return texts;
}

}  // namespace zelta::test
