// The device's creation and its way through the power states.
#include "driver/device/my_device.h"

#include <stdexcept>

#include "contract/class_ids.h"
#include "tests/driver/device/device_fixture.h"

namespace zelta {
namespace {

using framework::HRESULT;
using test::error;
using test::info;
using test::logCode;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr HRESULT kAccessDenied = framework::hresult(0x80070005);

using CreateDevice = test::DeviceFixture;

TEST_F(CreateDevice, MissingArgument_IsLoggedAndInvalid) {
  EXPECT_EQ(CMyDevice::CreateInstance(nullptr, &framework_.init, factory_),
            status::kInvalidArgument);
  EXPECT_EQ(CMyDevice::CreateInstance(&framework_.driver, nullptr, factory_),
            status::kInvalidArgument);
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(error(0x80070057, "[CI]Invalid IWDFDriver"),
                          error(0x80070057, "[CI]Invalid IWDFDeviceInitialize")));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::CreateInstance");
  EXPECT_EQ(winsock_.startups(), 0);
}

TEST_F(CreateDevice, Success_RegistersTheDeviceAndPublishesOneInterface) {
  EXPECT_EQ(create(), status::kSuccess);
  EXPECT_THAT(framework_.init.lockingConstraints, ElementsAre(framework::kCallbackConstraintNone));
  EXPECT_EQ(framework_.driver.lastInit, &framework_.init);
  ASSERT_EQ(wdfDevice()->interfaces.size(), 1u);
  EXPECT_EQ(wdfDevice()->interfaces[0].interfaceClass, kSmartCardReaderInterface);
  EXPECT_EQ(wdfDevice()->interfaces[0].referenceString, L"dev0");
  EXPECT_EQ(winsock_.startups(), 1);
  EXPECT_EQ(winsock_.version(), 0x0202);
  EXPECT_EQ(wdfDevice()->driversReferences(), 0);
  EXPECT_EQ(referencesOnDevice(), 1u);
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(info("SetLockingConstraint"), info("QueryInterface"),
                          info("CreateDevice"), info("CreateDeviceInterface [device name: dev0]")));
}

TEST_F(CreateDevice, WinsockAndInterfaceFailing_AreLoggedOnly) {
  winsock_.startupResult = 10091;
  framework_.results.createInterface = kAccessDenied;
  EXPECT_EQ(create(), status::kSuccess);
  EXPECT_THAT(log_.errors(), ElementsAre(error(10091, "Error at WSAStartup"),
                                         error(0x80070005, "CreateDeviceInterface Failed")));
}

TEST_F(CreateDevice, RefusedByTheFramework_GivesItsResultAndPublishesNothing) {
  framework_.results.createDevice = status::kNotSupported;
  EXPECT_EQ(create(), status::kNotSupported);
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(info("SetLockingConstraint"),
                                                    info("QueryInterface"), info("CreateDevice")));
  EXPECT_EQ(winsock_.startups(), 1);
}

TEST_F(CreateDevice, DeviceObject_AnswersForItsInterfacesOnly) {
  ASSERT_EQ(create(), status::kSuccess);
  framework::ComPtr<framework::IUnknown> found;
  for (const framework::IID& iid :
       {framework::IUnknown::iid, framework::IPnpCallbackHardware::iid,
        framework::IPnpCallback::iid, framework::IRequestCallbackCancel::iid}) {
    EXPECT_EQ(device_->QueryInterface(iid, found.putVoid()), framework::kOk);
    EXPECT_TRUE(found);
  }
  EXPECT_EQ(device_->QueryInterface(framework::IDriverEntry::iid, found.putVoid()),
            framework::kNoInterface);
}

class Hardware : public test::CreatedDevice {
 protected:
  framework::ComPtr<framework::IWDFDevice> makeOtherDevice() {
    framework::ComPtr<framework::IWDFDevice> other;
    framework_.driver.CreateDevice(nullptr, wdfDevice()->callback.get(), other.put());
    return other;
  }
};

TEST_F(Hardware, MissingDevice_IsLoggedAndInvalid) {
  EXPECT_EQ(device_->OnPrepareHardware(nullptr), status::kInvalidArgument);
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::OnPrepareHardware");
  EXPECT_EQ(device_->OnReleaseHardware(nullptr), status::kInvalidArgument);
  EXPECT_EQ(log_.count("Start section:CMyDevice::OnReleaseHardware"), 1u);
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(error(0x80070057, "[PrepareHW]Invalid device"),
                          error(0x80070057, "[ReleaseHW]Invalid device")));
  EXPECT_THAT(wdfDevice()->queues, IsEmpty());
}

TEST_F(Hardware, PreparedTwice_HoldsTheDeviceOnceAndCreatesAQueueEachTime) {
  for (std::size_t queues = 1; queues <= 2; ++queues) {
    EXPECT_EQ(framework_.prepareHardware(), status::kSuccess);
    EXPECT_EQ(wdfDevice()->driversReferences(), 1);
    EXPECT_EQ(wdfDevice()->queues.size(), queues);
  }
  EXPECT_EQ(framework_.releaseHardware(), status::kSuccess);
  EXPECT_EQ(wdfDevice()->driversReferences(), 0);
}

TEST_F(Hardware, PreparedWithAnotherDevice_LetsTheFormerGo) {
  test::FakeWdfDevice* const former = wdfDevice();
  ASSERT_EQ(framework_.prepareHardware(), status::kSuccess);
  makeOtherDevice();
  EXPECT_EQ(framework_.prepareHardware(), status::kSuccess);
  EXPECT_EQ(former->driversReferences(), 0);
  EXPECT_EQ(wdfDevice()->driversReferences(), 1);
  former->remove();
}

TEST_F(Hardware, ReleasedWithAnotherDevice_ChangesNothing) {
  ASSERT_EQ(framework_.prepareHardware(), status::kSuccess);
  test::FakeWdfDevice* const held = wdfDevice();
  const auto other = makeOtherDevice();
  EXPECT_EQ(framework_.releaseHardware(), status::kSuccess);
  EXPECT_EQ(held->driversReferences(), 1);
  EXPECT_EQ(wdfDevice()->driversReferences(), 1) << "the test's own";
  EXPECT_EQ(device_->OnReleaseHardware(held), status::kSuccess);
  held->remove();
}

class WorkingState : public test::CreatedDevice {
 protected:
  void enter() {
    ASSERT_EQ(framework_.enterD0(), status::kSuccess);
    story_.taken();
    log_.clear();
  }
};

TEST_F(WorkingState, Entered_CreatesTheReader) {
  EXPECT_EQ(framework_.enterD0(), status::kSuccess);
  EXPECT_THAT(story_.taken(), ElementsAre("made 0"));
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(info("CMyDevice::OnD0Entry: NumReaders[1]"),
                          info("CMyDevice::OnD0Entry: reader[0] initialized, vendor name=Vornhalt"),
                          info("CMyDevice::OnD0Entry: reader[0] initialized, vendor Ifd type="
                               "Zelta Virtual SmartCard Reader")));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::OnD0Entry");
}

TEST_F(WorkingState, EnteredAgain_DestroysTheFormerReaderFirst) {
  enter();
  EXPECT_EQ(framework_.enterD0(), status::kSuccess);
  EXPECT_THAT(story_.taken(), ElementsAre("exchanges ended 0", "destroyed 0", "made 0"));
}

TEST_F(WorkingState, ReaderThatCannotBeMade_IsLoggedAndInvalid) {
  takeDown();
  factory_ = [](std::uint32_t, ReaderDevice*) -> std::unique_ptr<Reader> {
    throw std::invalid_argument("Cannot create reader. Device is invalid.");
  };
  ASSERT_EQ(create(), status::kSuccess);
  log_.clear();
  EXPECT_EQ(framework_.enterD0(), status::kInvalidArgument);
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(info("CMyDevice::OnD0Entry: NumReaders[1]"),
                          error(0x80070057,
                                "Could not create reader[0]: Cannot create reader. "
                                "Device is invalid.")));
  EXPECT_EQ(framework_.exitD0(), status::kSuccess) << "by the count, with no reader there";
}

struct WayOut {
  const char* name;
  bool announced;
  HRESULT (*leave)(CMyDevice&, framework::IWDFDevice*);
};

class WaysOut : public WorkingState, public testing::WithParamInterface<WayOut> {};

TEST_P(WaysOut, ReadersAreShutDown_ThenDestroyed_ThenWinsockIsCleanedUp) {
  const std::string section = std::string("CMyDevice::") + GetParam().name;
  enter();
  story_.onShutdown = [&] { EXPECT_EQ(winsock_.cleanups(), 0); };
  EXPECT_EQ(GetParam().leave(*device_, wdfDevice()), status::kSuccess);
  EXPECT_THAT(story_.taken(), ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  EXPECT_EQ(winsock_.cleanups(), 1);
  std::vector<testing::Matcher<std::string>> lines = {
      "Start section:" + section, "Start section:CMyDevice::shutDown",
      testing::StartsWith("End section:CMyDevice::shutDown elapsed:"),
      testing::StartsWith("End section:" + section + " elapsed:")};
  if (GetParam().announced) lines.insert(lines.begin() + 1, GetParam().name);
  std::vector<std::string> texts;
  for (const auto& record : log_.records()) texts.push_back(record.text);
  EXPECT_THAT(texts, testing::ElementsAreArray(lines));
  if (GetParam().announced) {
    EXPECT_TRUE(log_.contains(info(GetParam().name)));
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, WaysOut,
                         testing::Values(WayOut{"OnD0Exit", false,
                                                [](CMyDevice& device, framework::IWDFDevice* wdf) {
                                                  return device.OnD0Exit(
                                                      wdf, framework::kPowerDeviceD3Final);
                                                }},
                                         WayOut{"OnQueryRemove", true,
                                                [](CMyDevice& device, framework::IWDFDevice* wdf) {
                                                  return device.OnQueryRemove(wdf);
                                                }},
                                         WayOut{"OnQueryStop", true,
                                                [](CMyDevice& device, framework::IWDFDevice* wdf) {
                                                  return device.OnQueryStop(wdf);
                                                }},
                                         WayOut{"OnSurpriseRemoval", true,
                                                [](CMyDevice& device, framework::IWDFDevice* wdf) {
                                                  device.OnSurpriseRemoval(wdf);
                                                  return framework::kOk;
                                                }}),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(WorkingState, QueryStopThenExit_ShutsDownTwiceAndNoReaderIsMadeAgain) {
  enter();
  EXPECT_EQ(device_->OnQueryStop(wdfDevice()), status::kSuccess);
  EXPECT_EQ(framework_.exitD0(), status::kSuccess);
  EXPECT_THAT(story_.taken(), ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  EXPECT_EQ(winsock_.cleanups(), 2);
  EXPECT_EQ(winsock_.startups(), 1);
  log_.clear();
  EXPECT_EQ(framework_.enterD0(), status::kSuccess);
  EXPECT_THAT(story_.taken(), IsEmpty());
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(info("CMyDevice::OnD0Entry: NumReaders[0]")));
}

TEST_F(WorkingState, ReaderThatFailsToShutDown_IsLoggedAndDestroyed) {
  enter();
  story_.onShutdown = [] { throw std::runtime_error("broken"); };
  EXPECT_EQ(framework_.exitD0(), status::kSuccess);
  EXPECT_THAT(story_.taken(), ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  EXPECT_THAT(log_.errors(),
              ElementsAre(error(logCode(status::kGenFailure), "CMyDevice::shutDown: broken")));
  EXPECT_EQ(winsock_.cleanups(), 1);
}

TEST_F(WorkingState, Left_ShutsReadersDownAndDestroysThemWithTheDeviceLockFree) {
  enter();
  story_.onShutdown = [&] { EXPECT_FALSE(lockIsHeld()); };
  story_.onDestroy = [&] { EXPECT_FALSE(lockIsHeld()); };
  EXPECT_EQ(framework_.exitD0(), status::kSuccess);
  EXPECT_THAT(story_.taken(), ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
}

}  // namespace
}  // namespace zelta
