#include "driver/module/my_driver.h"

#include "contract/status.h"
#include "driver/device/my_device.h"
#include "driver/module/start_banner.h"
#include "driver/request/entry_point.h"

namespace zelta {

namespace {

StartBanner startBanner;  // one per loaded module

}  // namespace

CMyDriver::CMyDriver() { const TimedSection section("CMyDriver::CMyDriver"); }

framework::HRESULT CMyDriver::OnInitialize(framework::IWDFDriver* /*driver*/) {
  return runEntryPoint("CMyDriver::OnInitialize", [] {
    startBanner.writeOnce();
    return status::kSuccess;
  });
}

framework::HRESULT CMyDriver::OnDeviceAdd(framework::IWDFDriver* driver,
                                          framework::IWDFDeviceInitialize* init) {
  return runEntryPoint("CMyDriver::OnDeviceAdd",
                       [&] { return CMyDevice::CreateInstance(driver, init); });
}

void CMyDriver::OnDeinitialize(framework::IWDFDriver* /*driver*/) {
  const TimedSection section("CMyDriver::OnDeinitialize");
}

}  // namespace zelta
