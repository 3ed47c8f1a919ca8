#include "tests/doubles/framework/recording_framework.h"

#include <utility>

#include "framework/com_object.h"
#include "tests/doubles/framework/recording_device.h"

namespace zelta::test {

using framework::EnumValue;
using framework::HRESULT;
using platform::MutexLock;

namespace {

// Keeps the locking constraint; the rest is not used.
class RecordingInitialize final
    : public framework::ComObject<RecordingInitialize, framework::IWDFDeviceInitialize> {
 public:
  explicit RecordingInitialize(Violations& violations) : violations_(violations) {}

  EnumValue constraint() const { return constraint_; }

  void ZELTA_STDMETHODCALLTYPE SetLockingConstraint(EnumValue constraint) override {
    constraint_ = constraint;
  }
  void ZELTA_STDMETHODCALLTYPE SetFilter() override { unexpected(); }
  HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDevicePropertyStore(const wchar_t*, EnumValue, void**,
                                                              EnumValue*) override {
    return unexpected();
  }
  void ZELTA_STDMETHODCALLTYPE SetPowerPolicyOwnership(framework::BOOL) override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE AutoForwardCreateCleanupClose(EnumValue) override { unexpected(); }
  HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceInstanceId(wchar_t*, framework::DWORD*) override {
    return unexpected();
  }
  void ZELTA_STDMETHODCALLTYPE SetPnpCapability(EnumValue, EnumValue) override { unexpected(); }
  EnumValue ZELTA_STDMETHODCALLTYPE GetPnpCapability(EnumValue) override { return unexpected(); }

 private:
  HRESULT unexpected() {
    violations_.add("device initialiser does not expect this call");
    return framework::hresult(0x80004001);
  }

  Violations& violations_;
  EnumValue constraint_ = 0;
};

}  // namespace

RecordingFramework::RecordingFramework(framework::ComPtr<framework::IDriverEntry> entry)
    : entry_(std::move(entry)), driver_(std::make_unique<RecordingDriver>(violations_)) {}

RecordingFramework::~RecordingFramework() = default;

HRESULT RecordingFramework::initialize() { return entry_->OnInitialize(driver_.get()); }

HRESULT RecordingFramework::addDevice() {
  const auto init = framework::ComPtr<RecordingInitialize>::adopt(
      framework::createObject<RecordingInitialize>(violations_));
  const HRESULT result = entry_->OnDeviceAdd(driver_.get(), init.get());
  lockingConstraint_ = init->constraint();
  RecordingDevice* device = driver_->device();
  if (device == nullptr) return result;
  device->callback()->QueryInterface(framework::IPnpCallback::iid, pnp_.putVoid());
  device->callback()->QueryInterface(framework::IPnpCallbackHardware::iid, hardware_.putVoid());
  return result;
}

HRESULT RecordingFramework::prepareHardware() {
  return hardware_->OnPrepareHardware(driver_->device());
}

HRESULT RecordingFramework::enterD0() {
  return pnp_->OnD0Entry(driver_->device(), framework::kPowerDeviceD3Final);
}

HRESULT RecordingFramework::exitD0() {
  return pnp_->OnD0Exit(driver_->device(), framework::kPowerDeviceD3Final);
}

HRESULT RecordingFramework::releaseHardware() {
  return hardware_->OnReleaseHardware(driver_->device());
}

void RecordingFramework::end() {
  pnp_.reset();
  hardware_.reset();
  if (RecordingDevice* device = driver_->device()) {
    device->letGo();
    if (device->queue() != nullptr) device->queue()->giveUp();
    device->giveUp();
  }
  entry_->OnDeinitialize(driver_.get());
  driver_->giveUp();
  entry_.reset();
}

bool RecordingFramework::bringUp() {
  return framework::succeeded(initialize()) && framework::succeeded(addDevice()) &&
         framework::succeeded(prepareHardware()) && framework::succeeded(enterD0());
}

void RecordingFramework::takeDown() {
  exitD0();
  releaseHardware();
  end();
}

RecordingRequest& RecordingFramework::makeRequest(const RequestParts& parts) {
  auto request = std::make_unique<RecordingRequest>(violations_, parts);
  RecordingRequest& made = *request;
  MutexLock lock(mutex_);
  requests_.push_back(std::move(request));
  return made;
}

void RecordingFramework::dispatch(RecordingRequest& request) {
  RecordingQueue* queue = driver_->device()->queue();
  const RequestParts& parts = request.parts();
  queue->callback()->OnDeviceIoControl(queue, &request, parts.code,
                                       parts.input ? parts.input->size() : 0,
                                       parts.outputCapacity.value_or(0));
}

RecordingRequest& RecordingFramework::dispatch(const RequestParts& parts) {
  RecordingRequest& request = makeRequest(parts);
  dispatch(request);
  return request;
}

std::vector<PublishedInterface> RecordingFramework::interfaces() const {
  return driver_->device()->interfaces();
}

EnumValue RecordingFramework::lockingConstraint() const { return lockingConstraint_; }

QueueArguments RecordingFramework::queueArguments() const {
  return driver_->device()->queue()->arguments();
}

void RecordingFramework::complainAbout(const RecordingRequest& request,
                                       std::vector<std::string>& texts) const {
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

std::vector<std::string> RecordingFramework::complaints() const {
  std::vector<std::string> texts = violations_.all();
  {
    MutexLock lock(mutex_);
    for (const auto& request : requests_) complainAbout(*request, texts);
  }
  const RecordingDevice* device = driver_->device();
  int left = driver_->driversReferences();
  if (device != nullptr) left += device->driversReferences();
  if (device != nullptr && device->queue() != nullptr) left += device->queue()->driversReferences();
  if (!entry_ && left != 0) texts.push_back(std::to_string(left) + " references on objects left");
  return texts;
}

}  // namespace zelta::test
