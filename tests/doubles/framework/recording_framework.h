// A minimal framework that records what a driver does to it: which device, queue and interfaces
// it makes, what becomes of each request, what is done against the framework's rules. It shares
// nothing with the host that the product runs the driver in.
//
//   RecordingFramework framework(driverEntry);
//   framework.bringUp();
//   RecordingRequest& request = framework.dispatch({IOCTL_SMARTCARD_GET_STATE, {}, 4});
//   framework.takeDown();
//   EXPECT_THAT(framework.complaints(), IsEmpty());
//
// Ownership: the test owns it; it owns the framework's objects and every request, to its end.
// Threads: `dispatch` and the requests from any thread; the rest for one at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/doubles/request/recording_request.h"

namespace zelta::test {

class RecordingQueue;
class RecordingDevice;
class RecordingDriver;

struct PublishedInterface {
  framework::GUID interfaceClass;
  std::wstring name;
};

// The arguments of the queue that the driver made.
struct QueueArguments {
  framework::BOOL defaultQueue = 0;
  framework::EnumValue dispatchType = 0;
  framework::BOOL powerManaged = 1;
  framework::BOOL allowZeroLength = 0;
};

class RecordingFramework {
 public:
  explicit RecordingFramework(framework::ComPtr<framework::IDriverEntry> entry);
  ~RecordingFramework();
  RecordingFramework(const RecordingFramework&) = delete;
  RecordingFramework& operator=(const RecordingFramework&) = delete;

  // The callbacks one by one; `bringUp` and `takeDown` are all of them in their order.
  framework::HRESULT initialize();
  framework::HRESULT addDevice();
  framework::HRESULT prepareHardware();
  framework::HRESULT enterD0();
  framework::HRESULT exitD0();
  framework::HRESULT releaseHardware();
  // Deletes the device and drops the driver.
  void end();
  // False where one of them failed.
  bool bringUp();
  void takeDown();

  // Hands a request to the driver on the calling thread.
  RecordingRequest& dispatch(const RequestParts& parts) ZELTA_EXCLUDES(mutex_);
  // A request that is not dispatched yet.
  RecordingRequest& makeRequest(const RequestParts& parts) ZELTA_EXCLUDES(mutex_);
  void dispatch(RecordingRequest& request);

  framework::IPnpCallback* pnp() const { return pnp_.get(); }
  std::vector<PublishedInterface> interfaces() const;
  framework::EnumValue lockingConstraint() const;
  QueueArguments queueArguments() const;
  // Everything against the rules up to now: forbidden calls, requests not completed exactly once,
  // references not given back, contexts not cleaned. Empty is good. For the end of a test, when
  // nothing of the driver's runs any more.
  std::vector<std::string> complaints() const ZELTA_EXCLUDES(mutex_);

 private:
  void complainAbout(const RecordingRequest& request, std::vector<std::string>& texts) const;

  Violations violations_;
  framework::ComPtr<framework::IDriverEntry> entry_;
  const std::unique_ptr<RecordingDriver> driver_;
  framework::ComPtr<framework::IPnpCallback> pnp_;
  framework::ComPtr<framework::IPnpCallbackHardware> hardware_;
  framework::EnumValue lockingConstraint_ = 0;
  mutable platform::Mutex mutex_;
  std::vector<std::unique_ptr<RecordingRequest>> requests_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
