#include "host/driver_host.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "host/driver_module.h"
#include "host/io_engine.h"
#include "host/wdf_driver.h"
#include "platform/process/environment.h"

namespace zelta::host {

using framework::ComPtr;
using framework::HRESULT;
using platform::MutexLock;

namespace {

void printDriverError(const std::string& text) {
  (void)std::fprintf(stderr, "zelta host: %s\n", text.c_str());
}

bool isSerialisingAskedFor() { return platform::environmentOr("ZELTA_HOST_SERIALISE", "") == "1"; }

InputParts whole(const std::vector<std::uint8_t>& input) {
  return {{}, {input.data(), input.size()}};
}

// Returns the number of bytes copied.
std::size_t copyFront(ConstBytes source, MutableBytes target) {
  const std::size_t size = std::min(source.size, target.size);
  if (size > 0) std::memcpy(target.data, source.data, size);
  return size;
}

class FileHandle final : public File {
 public:
  FileHandle(std::shared_ptr<IoEngine> engine, ComPtr<WdfFile> file)
      : engine_(std::move(engine)), file_(std::move(file)) {}

  ~FileHandle() override {
    // Releasing the file may run the driver's cleanup. After the engine's stop the device
    // still holds the file, or has deleted it.
    const CallbackGate::Pass pass(engine_->gate());
    if (pass) {
      if (const ComPtr<WdfDevice> device = file_->device().get()) device->closeFile(*file_.get());
    }
    file_.reset();
  }

  IoResult control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                   std::size_t outputCapacity, std::chrono::milliseconds limit) override {
    const BlockingControl control(*engine_, file_, {code, whole(input), outputCapacity}, limit);
    IoResult result;
    result.information = control.completion().information;
    result.status = withoutMemoryErrors([&] {
      result.output.assign(control.output().data, control.output().data + control.output().size);
      return control.completion().status;
    });
    return result;
  }

  IoStatus controlInParts(std::uint32_t code, const InputParts& input, const OutputParts& output,
                          std::chrono::milliseconds limit) override {
    if (output.body.size > SIZE_MAX - output.header.size) return {kOutOfMemory, 0};
    const std::size_t capacity = output.header.size + output.body.size;
    const BlockingControl control(*engine_, file_, {code, input, capacity}, limit);
    const std::size_t inBody = copyFront(control.output(), output.header);
    copyFront({control.output().data + inBody, control.output().size - inBody}, output.body);
    return control.completion();
  }

  std::shared_ptr<IoOperation> submit(std::uint32_t code, const std::vector<std::uint8_t>& input,
                                      std::size_t outputCapacity, Completion completion) override {
    return engine_->submit(file_, {code, whole(input), outputCapacity}, std::move(completion));
  }

 private:
  const std::shared_ptr<IoEngine> engine_;
  ComPtr<WdfFile> file_;
};

class ModuleHost final : public DriverHost {
 public:
  ModuleHost(const std::string& modulePath, HostOptions options)
      : errors_(std::make_shared<DriverErrors>(options.driverError ? std::move(options.driverError)
                                                                   : printDriverError)),
        callbacks_(options.serialiseCallbacks || isSerialisingAskedFor() ? Callbacks::kOneAtATime
                                                                         : Callbacks::kOverlapping),
        module_(modulePath) {}

  ~ModuleHost() override {
    takeDown();
    (void)module_.unload();
  }

  void bringUp() override;
  void tearDown() noexcept override { takeDown(); }
  bool unload() override { return stage_ == Stage::kDown && module_.unload(); }
  std::shared_ptr<File> open(const std::wstring& name) override ZELTA_EXCLUDES(mutex_);
  std::vector<std::wstring> interfaces() const override ZELTA_EXCLUDES(mutex_);

 private:
  // How far the driver was brought up; tear-down goes back from there.
  enum class Stage { kDown, kCreated, kInitialized, kPrepared, kWorking };

  void addDevice();
  void powerUp();
  void startIo() ZELTA_EXCLUDES(mutex_);
  void takeDown() noexcept ZELTA_EXCLUDES(mutex_);
  void stopIo() noexcept ZELTA_EXCLUDES(mutex_);
  void powerDown() noexcept;
  // Throws HostError if the driver's callback failed.
  void check(HRESULT result, const char* callback);
  void note(HRESULT result, const char* callback) const noexcept;

  const SharedDriverErrors errors_;
  const Callbacks callbacks_;
  DriverModule module_;

  // Used by the owner only.
  Stage stage_ = Stage::kDown;
  ComPtr<framework::IDriverEntry> entry_;
  ComPtr<WdfDriver> driver_;
  ComPtr<WdfDevice> device_;
  std::shared_ptr<IoEngine> stopped_;  // between its stop and the end of the device

  // For callers of `open`: both null unless the device is working.
  mutable platform::Mutex mutex_;
  std::shared_ptr<IoEngine> engine_ ZELTA_GUARDED_BY(mutex_);
  ComPtr<WdfDevice> openDevice_ ZELTA_GUARDED_BY(mutex_);
};

void ModuleHost::check(HRESULT result, const char* callback) {
  if (framework::succeeded(result)) return;
  throw HostError(std::string(callback) + " of the driver failed with code " + codeText(result));
}

void ModuleHost::note(HRESULT result, const char* callback) const noexcept {
  if (framework::succeeded(result)) return;
  errors_->report(callback, " failed with code ", codeText(result).c_str());
}

void ModuleHost::bringUp() {
  if (!module_.loaded()) throw HostError("driver module '" + module_.path() + "' is unloaded");
  if (stage_ != Stage::kDown) return;
  entry_ = module_.createDriver();
  stage_ = Stage::kCreated;
  try {
    driver_ = makeObject<WdfDriver>(errors_);
    check(entry_->OnInitialize(driver_.get()), "OnInitialize");
    stage_ = Stage::kInitialized;
    addDevice();
    powerUp();
    startIo();
  } catch (...) {
    takeDown();
    throw;
  }
}

void ModuleHost::addDevice() {
  const auto init =
      ComPtr<WdfDeviceInitialize>::adopt(framework::createObject<WdfDeviceInitialize>(errors_));
  if (!init) throw HostError("no memory for the device initialiser");
  check(entry_->OnDeviceAdd(driver_.get(), init.get()), "OnDeviceAdd");
  device_ = driver_->device();
  if (!device_) throw HostError("OnDeviceAdd of the driver created no device");
}

void ModuleHost::powerUp() {
  // A driver whose preparation failed is told to release the hardware, too.
  stage_ = Stage::kPrepared;
  if (device_->hardware() != nullptr) {
    check(device_->hardware()->OnPrepareHardware(device_.get()), "OnPrepareHardware");
  }
  if (device_->pnp() != nullptr) {
    check(device_->pnp()->OnD0Entry(device_.get(), framework::kPowerDeviceD3Final), "OnD0Entry");
  }
  stage_ = Stage::kWorking;
}

void ModuleHost::startIo() {
  auto engine = std::make_shared<IoEngine>(errors_, device_->defaultQueue(), callbacks_);
  const MutexLock lock(mutex_);
  engine_ = std::move(engine);
  openDevice_ = device_;
}

void ModuleHost::stopIo() noexcept {
  ComPtr<WdfDevice> device;
  {
    const MutexLock lock(mutex_);
    stopped_ = std::move(engine_);
    device = std::move(openDevice_);
  }
  if (stopped_) stopped_->close();
}

// A queue that is not power-managed delivers I/O until the end. The driver ends its handlers' work
// when it leaves its working state, so they are waited for only then.
void ModuleHost::powerDown() noexcept {
  if (stage_ == Stage::kWorking && device_->pnp() != nullptr) {
    note(device_->pnp()->OnD0Exit(device_.get(), framework::kPowerDeviceD3Final), "OnD0Exit");
  }
  if (stopped_) stopped_->awaitCallbacks();
  if (stage_ >= Stage::kPrepared && device_->hardware() != nullptr) {
    note(device_->hardware()->OnReleaseHardware(device_.get()), "OnReleaseHardware");
  }
}

void ModuleHost::takeDown() noexcept {
  if (stage_ == Stage::kDown) return;
  stopIo();
  if (device_) powerDown();
  if (stopped_) stopped_->abandon();
  stopped_.reset();
  // The device is deleted before the driver object is told of the end.
  if (device_) {
    device_->dispose();
    device_->detach();
    device_.reset();
  }
  if (stage_ >= Stage::kInitialized) entry_->OnDeinitialize(driver_.get());
  if (driver_) driver_->dispose();
  driver_.reset();
  entry_.reset();
  stage_ = Stage::kDown;
}

std::shared_ptr<File> ModuleHost::open(const std::wstring& name) {
  const MutexLock lock(mutex_);
  if (!openDevice_) return nullptr;
  ComPtr<WdfFile> file = openDevice_->openFile(name);
  if (!file) return nullptr;
  try {
    return std::make_shared<FileHandle>(engine_, file);
  } catch (const std::bad_alloc&) {
    openDevice_->closeFile(*file.get());
    throw;
  }
}

std::vector<std::wstring> ModuleHost::interfaces() const {
  const MutexLock lock(mutex_);
  return openDevice_ ? openDevice_->interfaces() : std::vector<std::wstring>();
}

}  // namespace

std::unique_ptr<DriverHost> DriverHost::load(const std::string& modulePath, HostOptions options) {
  return std::make_unique<ModuleHost>(modulePath, std::move(options));
}

}  // namespace zelta::host
