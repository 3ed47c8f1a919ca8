// The device's creation and its way through the power states.
#include "driver/device/my_device.h"

#include <stdexcept>

#include "contract/class_ids.h"
#include "tests/driver/device/device_fixture.h"

namespace zelta {
namespace {

using test::DeviceFixture;
using test::error;
using test::info;
using testing::ElementsAre;
using testing::IsEmpty;

class CreateDevice : public DeviceFixture {};

TEST_F(CreateDevice, WithoutADriverIsAnInvalidArgument) {
  EXPECT_EQ(CMyDevice::CreateInstance(nullptr, &init_, factory_), framework::hresult(0x80070057));
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(error(0x80070057, "[CI]Invalid IWDFDriver")));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::CreateInstance");
  EXPECT_EQ(winsock_.startups(), 0);
}

TEST_F(CreateDevice, WithoutAnInitialiserIsAnInvalidArgument) {
  EXPECT_EQ(CMyDevice::CreateInstance(wdf_.get(), nullptr, factory_),
            framework::hresult(0x80070057));
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(error(0x80070057, "[CI]Invalid IWDFDeviceInitialize")));
  EXPECT_EQ(winsock_.startups(), 0);
}

TEST_F(CreateDevice, RegistersTheDeviceAndPublishesOneInterface) {
  EXPECT_EQ(create(), 0);
  EXPECT_THAT(init_.lockingConstraints, ElementsAre(1));
  EXPECT_EQ(wdf_->lastInit, &init_);
  ASSERT_EQ(wdfDevice()->interfaces.size(), 1u);
  EXPECT_EQ(wdfDevice()->interfaces[0].interfaceClass, kSmartCardReaderInterface);
  EXPECT_EQ(wdfDevice()->interfaces[0].referenceString, L"dev0");
  EXPECT_EQ(winsock_.startups(), 1);
  EXPECT_EQ(winsock_.version(), 0x0202);
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(info("SetLockingConstraint"), info("QueryInterface"),
                          info("CreateDevice"), info("CreateDeviceInterface [device name: dev0]")));
}

TEST_F(CreateDevice, LeavesTheFrameworkTheOnlyReferences) {
  ASSERT_EQ(create(), 0);
  EXPECT_EQ(wdfDevice()->references(), 1u);
  EXPECT_EQ(device_->AddRef(), 2u);
  device_->Release();
}

TEST_F(CreateDevice, FailingToStartWinsockIsLoggedOnly) {
  winsock_.startupResult = 10091;
  EXPECT_EQ(create(), 0);
  EXPECT_THAT(log_.errors(), ElementsAre(error(10091, "Error at WSAStartup")));
  EXPECT_EQ(wdfDevice()->interfaces.size(), 1u);
}

TEST_F(CreateDevice, FailingToPublishIsLoggedOnly) {
  wdf_->createInterfaceResult = framework::hresult(0x80070005);
  EXPECT_EQ(create(), 0);
  EXPECT_THAT(log_.errors(), ElementsAre(error(0x80070005, "CreateDeviceInterface Failed")));
}

TEST_F(CreateDevice, RefusedByTheFrameworkGivesItsResultAndPublishesNothing) {
  wdf_->createDeviceResult = framework::hresult(0x80070032);
  EXPECT_EQ(create(), framework::hresult(0x80070032));
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(info("SetLockingConstraint"),
                                                    info("QueryInterface"), info("CreateDevice")));
  EXPECT_EQ(winsock_.startups(), 1);
}

TEST_F(CreateDevice, AnswersForItsInterfaces) {
  ASSERT_EQ(create(), 0);
  for (const framework::IID& iid :
       {framework::IUnknown::iid, framework::IPnpCallbackHardware::iid,
        framework::IPnpCallback::iid, framework::IRequestCallbackCancel::iid}) {
    framework::ComPtr<framework::IUnknown> found;
    EXPECT_EQ(device_->QueryInterface(iid, found.putVoid()), 0);
    EXPECT_TRUE(found);
  }
  framework::ComPtr<framework::IUnknown> found;
  EXPECT_EQ(device_->QueryInterface(framework::IDriverEntry::iid, found.putVoid()),
            framework::kNoInterface);
}

class Hardware : public DeviceFixture {
 protected:
  void SetUp() override {
    ASSERT_EQ(create(), 0);
    log_.clear();
  }
};

TEST_F(Hardware, PreparedWithoutADeviceIsAnInvalidArgument) {
  EXPECT_EQ(device_->OnPrepareHardware(nullptr), framework::hresult(0x80070057));
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(error(0x80070057, "[PrepareHW]Invalid device")));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::OnPrepareHardware");
  EXPECT_THAT(wdfDevice()->queues, IsEmpty());
}

TEST_F(Hardware, PreparedHoldsTheDeviceOnceAndCreatesTheQueue) {
  EXPECT_EQ(device_->OnPrepareHardware(wdfDevice()), 0);
  EXPECT_EQ(wdfDevice()->references(), 2u);
  EXPECT_EQ(device_->OnPrepareHardware(wdfDevice()), 0);
  EXPECT_EQ(wdfDevice()->references(), 2u);
  EXPECT_EQ(wdfDevice()->queues.size(), 2u);
  EXPECT_EQ(device_->OnReleaseHardware(wdfDevice()), 0);
  EXPECT_EQ(wdfDevice()->references(), 1u);
}

TEST_F(Hardware, PreparedWithAnotherDeviceLetsTheFormerGo) {
  ASSERT_EQ(device_->OnPrepareHardware(wdfDevice()), 0);
  const auto other = framework::ComPtr<test::FakeWdfDevice>::adopt(new test::FakeWdfDevice);
  EXPECT_EQ(device_->OnPrepareHardware(other.get()), 0);
  EXPECT_EQ(wdfDevice()->references(), 1u);
  EXPECT_EQ(other->references(), 2u);
  EXPECT_EQ(device_->OnReleaseHardware(other.get()), 0);
  EXPECT_EQ(other->references(), 1u);
  other->letGo();
}

TEST_F(Hardware, PreparedGivesTheQueuesResult) {
  wdfDevice()->createQueueResult = framework::hresult(0x8007001F);
  EXPECT_EQ(device_->OnPrepareHardware(wdfDevice()), framework::hresult(0x8007001F));
}

TEST_F(Hardware, ReleasedWithoutADeviceIsAnInvalidArgument) {
  EXPECT_EQ(device_->OnReleaseHardware(nullptr), framework::hresult(0x80070057));
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(error(0x80070057, "[ReleaseHW]Invalid device")));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::OnReleaseHardware");
}

TEST_F(Hardware, ReleasedWithAnotherDeviceChangesNothing) {
  ASSERT_EQ(device_->OnPrepareHardware(wdfDevice()), 0);
  const auto other = framework::ComPtr<test::FakeWdfDevice>::adopt(new test::FakeWdfDevice);
  EXPECT_EQ(device_->OnReleaseHardware(other.get()), 0);
  EXPECT_EQ(wdfDevice()->references(), 2u);
  EXPECT_EQ(other->references(), 1u);
}

class WorkingState : public DeviceFixture {
 protected:
  void SetUp() override {
    ASSERT_EQ(create(), 0);
    log_.clear();
  }

  framework::HRESULT enter() {
    return device_->OnD0Entry(wdfDevice(), framework::kPowerDeviceD3Final);
  }
  framework::HRESULT leave() {
    return device_->OnD0Exit(wdfDevice(), framework::kPowerDeviceD3Final);
  }
};

TEST_F(WorkingState, EnteredCreatesTheReader) {
  EXPECT_EQ(enter(), 0);
  EXPECT_THAT(story_.taken(), ElementsAre("made 0"));
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(info("CMyDevice::OnD0Entry: NumReaders[1]"),
                          info("CMyDevice::OnD0Entry: reader[0] initialized, vendor name=Vornhalt"),
                          info("CMyDevice::OnD0Entry: reader[0] initialized, vendor Ifd type="
                               "Zelta Virtual SmartCard Reader")));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDevice::OnD0Entry");
}

TEST_F(WorkingState, EnteredAgainDestroysTheFormerReaderFirst) {
  ASSERT_EQ(enter(), 0);
  EXPECT_EQ(enter(), 0);
  EXPECT_THAT(story_.taken(), ElementsAre("made 0", "exchanges ended 0", "destroyed 0", "made 0"));
}

TEST_F(WorkingState, ReaderThatCannotBeMadeIsAnInvalidArgument) {
  device_->OnD0Exit(nullptr, 0);
  takeDown();
  factory_ = [](std::uint32_t, ReaderDevice*) -> std::unique_ptr<Reader> {
    throw std::invalid_argument("Cannot create reader. Device is invalid.");
  };
  ASSERT_EQ(create(), 0);
  log_.clear();
  EXPECT_EQ(enter(), framework::hresult(0x80070057));
  EXPECT_THAT(log_.recordsAboveDebug(),
              ElementsAre(info("CMyDevice::OnD0Entry: NumReaders[1]"),
                          error(0x80070057,
                                "Could not create reader[0]: Cannot create reader. "
                                "Device is invalid.")));
  EXPECT_EQ(leave(), 0);  // by the count, with no reader there
}

struct Exit {
  const char* section;
  const char* text;  // null: none
  framework::HRESULT (*call)(CMyDevice&, framework::IWDFDevice*);
};

class WaysOut : public WorkingState, public testing::WithParamInterface<Exit> {};

TEST_P(WaysOut, ShutTheReadersDownThenDestroyThemThenCleanWinsockUp) {
  ASSERT_EQ(enter(), 0);
  story_.taken();
  log_.clear();
  story_.onShutdown = [&] { EXPECT_EQ(winsock_.cleanups(), 0); };
  EXPECT_EQ(GetParam().call(*device_, wdfDevice()), 0);
  EXPECT_THAT(story_.taken(), ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  EXPECT_EQ(winsock_.cleanups(), 1);
  const auto records = log_.records();
  ASSERT_GE(records.size(), 4u);
  std::size_t next = 0;
  EXPECT_EQ(records[next++].text, std::string("Start section:") + GetParam().section);
  if (GetParam().text != nullptr) {
    EXPECT_EQ(records[next++], info(GetParam().text));
  }
  EXPECT_EQ(records[next++].text, "Start section:CMyDevice::shutDown");
  EXPECT_THAT(records[next++].text,
              testing::StartsWith("End section:CMyDevice::shutDown elapsed:"));
  EXPECT_THAT(records[next++].text,
              testing::StartsWith(std::string("End section:") + GetParam().section + " elapsed:"));
  EXPECT_EQ(next, records.size());
}

INSTANTIATE_TEST_SUITE_P(Operations, WaysOut,
                         testing::Values(Exit{"CMyDevice::OnD0Exit", nullptr,
                                              [](CMyDevice& device, framework::IWDFDevice* wdf) {
                                                return device.OnD0Exit(
                                                    wdf, framework::kPowerDeviceD3Final);
                                              }},
                                         Exit{"CMyDevice::OnQueryRemove", "OnQueryRemove",
                                              [](CMyDevice& device, framework::IWDFDevice* wdf) {
                                                return device.OnQueryRemove(wdf);
                                              }},
                                         Exit{"CMyDevice::OnQueryStop", "OnQueryStop",
                                              [](CMyDevice& device, framework::IWDFDevice* wdf) {
                                                return device.OnQueryStop(wdf);
                                              }},
                                         Exit{"CMyDevice::OnSurpriseRemoval", "OnSurpriseRemoval",
                                              [](CMyDevice& device, framework::IWDFDevice* wdf) {
                                                device.OnSurpriseRemoval(wdf);
                                                return framework::kOk;
                                              }}));

TEST_F(WorkingState, QueryStopThenExitShutsDownTwice) {
  ASSERT_EQ(enter(), 0);
  story_.taken();
  EXPECT_EQ(device_->OnQueryStop(wdfDevice()), 0);
  EXPECT_EQ(leave(), 0);
  EXPECT_THAT(story_.taken(), ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  EXPECT_EQ(winsock_.cleanups(), 2);
  EXPECT_EQ(winsock_.startups(), 1);
}

TEST_F(WorkingState, EnteredAfterAShutdownCreatesNoReaders) {
  ASSERT_EQ(enter(), 0);
  ASSERT_EQ(leave(), 0);
  story_.taken();
  log_.clear();
  EXPECT_EQ(enter(), 0);
  EXPECT_THAT(story_.taken(), IsEmpty());
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(info("CMyDevice::OnD0Entry: NumReaders[0]")));
}

TEST_F(WorkingState, ReaderThatFailsToShutDownIsDestroyedNevertheless) {
  ASSERT_EQ(enter(), 0);
  story_.taken();
  story_.onShutdown = [] { throw std::runtime_error("broken"); };
  EXPECT_EQ(leave(), 0);
  EXPECT_THAT(story_.taken(), ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  EXPECT_THAT(log_.errors(), ElementsAre(error(0x8007001F, "CMyDevice::shutDown: broken")));
  EXPECT_EQ(winsock_.cleanups(), 1);
}

TEST_F(WorkingState, ReadersAreShutDownAndDestroyedWithTheDeviceLockFree) {
  ASSERT_EQ(enter(), 0);
  bool freeAtShutdown = false;
  bool freeAtDestruction = false;
  story_.onShutdown = [&] { freeAtShutdown = !lockIsHeld(); };
  story_.onDestroy = [&] { freeAtDestruction = !lockIsHeld(); };
  ASSERT_EQ(leave(), 0);
  EXPECT_TRUE(freeAtShutdown);
  EXPECT_TRUE(freeAtDestruction);
}

}  // namespace
}  // namespace zelta
