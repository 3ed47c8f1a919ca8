// The place of every operation in its interface's table. A wrong one is a crash in the operating
// system's host.
#include <gtest/gtest.h>

#include <cstring>

#include "framework/wdf.h"

namespace zelta::framework {
namespace {

// A pointer to a virtual member function holds, in its first word, one plus the function's offset
// in the table (the C++ ABI of g++ and clang++ on every system that this is built for).
template <typename Member>
std::size_t slotOf(Member member) {
  std::uintptr_t word = 0;
  static_assert(sizeof member >= sizeof word);
  std::memcpy(&word, &member, sizeof word);
  EXPECT_EQ(word % sizeof(void*), 1u) << "not a virtual function";
  return (word - 1) / sizeof(void*);
}

struct Operation {
  std::size_t slot;
  const char* name;
};

// The operations come one after another from `first` on.
void expectSlots(std::size_t first, std::initializer_list<Operation> operations) {
  for (const Operation& operation : operations) {
    EXPECT_EQ(operation.slot, first++) << operation.name;
  }
}

// An operation of the interface `I`.
#define SLOT(operation) \
  Operation { slotOf(&I::operation), #operation }

// As every interface inherits them.
template <typename I>
void expectUnknownFirst() {
  expectSlots(0, {SLOT(QueryInterface), SLOT(AddRef), SLOT(Release)});
  EXPECT_EQ(sizeof(I), sizeof(void*)) << "an interface is a pointer to its table";
}

template <typename I>
void expectObjectFirst() {
  expectUnknownFirst<I>();
  expectSlots(3, {SLOT(DeleteWdfObject), SLOT(AssignContext), SLOT(RetrieveContext),
                  SLOT(AcquireLock), SLOT(ReleaseLock)});
}

TEST(Slots, ClassFactory_IsInOrder) {
  using I = IClassFactory;
  expectUnknownFirst<I>();
  expectSlots(3, {SLOT(CreateInstance), SLOT(LockServer)});
}

TEST(Slots, DriverEntry_IsInOrder) {
  using I = IDriverEntry;
  expectUnknownFirst<I>();
  expectSlots(3, {SLOT(OnInitialize), SLOT(OnDeviceAdd), SLOT(OnDeinitialize)});
}

TEST(Slots, PnpCallbackHardware_IsInOrder) {
  using I = IPnpCallbackHardware;
  expectUnknownFirst<I>();
  expectSlots(3, {SLOT(OnPrepareHardware), SLOT(OnReleaseHardware)});
}

TEST(Slots, PnpCallback_IsInOrder) {
  using I = IPnpCallback;
  expectUnknownFirst<I>();
  expectSlots(3, {SLOT(OnD0Entry), SLOT(OnD0Exit), SLOT(OnSurpriseRemoval), SLOT(OnQueryRemove),
                  SLOT(OnQueryStop)});
}

TEST(Slots, CallbacksWithOneOperation_HaveItThird) {
  expectUnknownFirst<IRequestCallbackCancel>();
  expectUnknownFirst<IQueueCallbackDeviceIoControl>();
  expectUnknownFirst<IObjectCleanup>();
  EXPECT_EQ(slotOf(&IRequestCallbackCancel::OnCancel), 3u);
  EXPECT_EQ(slotOf(&IQueueCallbackDeviceIoControl::OnDeviceIoControl), 3u);
  EXPECT_EQ(slotOf(&IObjectCleanup::OnCleanup), 3u);
}

TEST(Slots, Driver_IsInOrder) {
  using I = IWDFDriver;
  expectObjectFirst<IWDFObject>();
  expectObjectFirst<I>();
  expectSlots(8, {SLOT(CreateDevice), SLOT(CreateWdfObject), SLOT(CreatePreallocatedWdfMemory),
                  SLOT(CreateWdfMemory), SLOT(IsVersionAvailable), SLOT(RetrieveVersionString)});
}

TEST(Slots, DeviceInitialize_IsInOrder) {
  using I = IWDFDeviceInitialize;
  expectUnknownFirst<I>();
  expectSlots(3, {SLOT(SetFilter), SLOT(SetLockingConstraint), SLOT(RetrieveDevicePropertyStore),
                  SLOT(SetPowerPolicyOwnership), SLOT(AutoForwardCreateCleanupClose),
                  SLOT(RetrieveDeviceInstanceId), SLOT(SetPnpCapability), SLOT(GetPnpCapability)});
}

TEST(Slots, Device_IsInOrder) {
  using I = IWDFDevice;
  expectObjectFirst<I>();
  expectSlots(8, {SLOT(RetrieveDevicePropertyStore), SLOT(GetDriver),
                  SLOT(RetrieveDeviceInstanceId), SLOT(GetDefaultIoTarget), SLOT(CreateWdfFile),
                  SLOT(GetDefaultIoQueue), SLOT(CreateIoQueue), SLOT(CreateDeviceInterface),
                  SLOT(AssignDeviceInterfaceState), SLOT(RetrieveDeviceName), SLOT(PostEvent),
                  SLOT(ConfigureRequestDispatching), SLOT(SetPnpState), SLOT(GetPnpState),
                  SLOT(CommitPnpState), SLOT(CreateRequest), SLOT(CreateSymbolicLink)});
}

TEST(Slots, File_IsInOrder) {
  using I = IWDFFile;
  expectObjectFirst<I>();
  expectSlots(8, {SLOT(RetrieveFileName), SLOT(GetDevice)});
}

TEST(Slots, Request_IsInOrder) {
  using I = IWDFIoRequest;
  expectObjectFirst<I>();
  expectSlots(8, {SLOT(CompleteWithInformation),
                  SLOT(SetInformation),
                  SLOT(Complete),
                  SLOT(SetCompletionCallback),
                  SLOT(GetType),
                  SLOT(GetCreateParameters),
                  SLOT(GetReadParameters),
                  SLOT(GetWriteParameters),
                  SLOT(GetDeviceIoControlParameters),
                  SLOT(GetOutputMemory),
                  SLOT(GetInputMemory),
                  SLOT(MarkCancelable),
                  SLOT(UnmarkCancelable),
                  SLOT(CancelSentRequest),
                  SLOT(ForwardToIoQueue),
                  SLOT(Send),
                  SLOT(GetFileObject),
                  SLOT(FormatUsingCurrentType),
                  SLOT(GetRequestorProcessId),
                  SLOT(GetIoQueue),
                  SLOT(Impersonate),
                  SLOT(IsFrom32BitProcess),
                  SLOT(GetCompletionParams)});
}

TEST(Slots, Memory_IsInOrder) {
  using I = IWDFMemory;
  expectObjectFirst<I>();
  expectSlots(8, {SLOT(CopyFromMemory), SLOT(CopyToBuffer), SLOT(CopyFromBuffer), SLOT(GetSize),
                  SLOT(GetDataBuffer), SLOT(SetBuffer)});
}

TEST(Slots, Queue_IsInOrder) {
  using I = IWDFIoQueue;
  expectObjectFirst<I>();
  expectSlots(8, {SLOT(GetDevice), SLOT(ConfigureRequestDispatching), SLOT(GetState),
                  SLOT(RetrieveNextRequest), SLOT(RetrieveNextRequestByFileObject), SLOT(Start),
                  SLOT(Stop), SLOT(StopSynchronously), SLOT(Drain), SLOT(DrainSynchronously),
                  SLOT(Purge), SLOT(PurgeSynchronously)});
}

}  // namespace
}  // namespace zelta::framework
