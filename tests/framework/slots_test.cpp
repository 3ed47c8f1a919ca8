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
#define ZELTA_SLOT(operation) \
  Operation { slotOf(&I::operation), #operation }

// The operations that every interface inherits.
template <typename I>
void expectUnknownFirst() {
  expectSlots(0, {ZELTA_SLOT(QueryInterface), ZELTA_SLOT(AddRef), ZELTA_SLOT(Release)});
  EXPECT_EQ(sizeof(I), sizeof(void*)) << "an interface is a pointer to its table";
}

template <typename I>
void expectObjectFirst() {
  expectUnknownFirst<I>();
  expectSlots(3, {ZELTA_SLOT(DeleteWdfObject), ZELTA_SLOT(AssignContext),
                  ZELTA_SLOT(RetrieveContext), ZELTA_SLOT(AcquireLock), ZELTA_SLOT(ReleaseLock)});
}

TEST(Slots, ClassFactory_IsInOrder) {
  using I = IClassFactory;
  expectUnknownFirst<I>();
  expectSlots(3, {ZELTA_SLOT(CreateInstance), ZELTA_SLOT(LockServer)});
}

TEST(Slots, DriverEntry_IsInOrder) {
  using I = IDriverEntry;
  expectUnknownFirst<I>();
  expectSlots(3, {ZELTA_SLOT(OnInitialize), ZELTA_SLOT(OnDeviceAdd), ZELTA_SLOT(OnDeinitialize)});
}

TEST(Slots, PnpCallbackHardware_IsInOrder) {
  using I = IPnpCallbackHardware;
  expectUnknownFirst<I>();
  expectSlots(3, {ZELTA_SLOT(OnPrepareHardware), ZELTA_SLOT(OnReleaseHardware)});
}

TEST(Slots, PnpCallback_IsInOrder) {
  using I = IPnpCallback;
  expectUnknownFirst<I>();
  expectSlots(3, {ZELTA_SLOT(OnD0Entry), ZELTA_SLOT(OnD0Exit), ZELTA_SLOT(OnSurpriseRemoval),
                  ZELTA_SLOT(OnQueryRemove), ZELTA_SLOT(OnQueryStop)});
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
  expectSlots(8, {ZELTA_SLOT(CreateDevice), ZELTA_SLOT(CreateWdfObject),
                  ZELTA_SLOT(CreatePreallocatedWdfMemory), ZELTA_SLOT(CreateWdfMemory),
                  ZELTA_SLOT(IsVersionAvailable), ZELTA_SLOT(RetrieveVersionString)});
}

TEST(Slots, DeviceInitialize_IsInOrder) {
  using I = IWDFDeviceInitialize;
  expectUnknownFirst<I>();
  expectSlots(3, {ZELTA_SLOT(SetFilter), ZELTA_SLOT(SetLockingConstraint),
                  ZELTA_SLOT(RetrieveDevicePropertyStore), ZELTA_SLOT(SetPowerPolicyOwnership),
                  ZELTA_SLOT(AutoForwardCreateCleanupClose), ZELTA_SLOT(RetrieveDeviceInstanceId),
                  ZELTA_SLOT(SetPnpCapability), ZELTA_SLOT(GetPnpCapability)});
}

TEST(Slots, Device_IsInOrder) {
  using I = IWDFDevice;
  expectObjectFirst<I>();
  expectSlots(
      8, {ZELTA_SLOT(RetrieveDevicePropertyStore), ZELTA_SLOT(GetDriver),
          ZELTA_SLOT(RetrieveDeviceInstanceId), ZELTA_SLOT(GetDefaultIoTarget),
          ZELTA_SLOT(CreateWdfFile), ZELTA_SLOT(GetDefaultIoQueue), ZELTA_SLOT(CreateIoQueue),
          ZELTA_SLOT(CreateDeviceInterface), ZELTA_SLOT(AssignDeviceInterfaceState),
          ZELTA_SLOT(RetrieveDeviceName), ZELTA_SLOT(PostEvent),
          ZELTA_SLOT(ConfigureRequestDispatching), ZELTA_SLOT(SetPnpState), ZELTA_SLOT(GetPnpState),
          ZELTA_SLOT(CommitPnpState), ZELTA_SLOT(CreateRequest), ZELTA_SLOT(CreateSymbolicLink)});
}

TEST(Slots, File_IsInOrder) {
  using I = IWDFFile;
  expectObjectFirst<I>();
  expectSlots(8, {ZELTA_SLOT(RetrieveFileName), ZELTA_SLOT(GetDevice)});
}

TEST(Slots, Request_IsInOrder) {
  using I = IWDFIoRequest;
  expectObjectFirst<I>();
  expectSlots(8, {ZELTA_SLOT(CompleteWithInformation),
                  ZELTA_SLOT(SetInformation),
                  ZELTA_SLOT(Complete),
                  ZELTA_SLOT(SetCompletionCallback),
                  ZELTA_SLOT(GetType),
                  ZELTA_SLOT(GetCreateParameters),
                  ZELTA_SLOT(GetReadParameters),
                  ZELTA_SLOT(GetWriteParameters),
                  ZELTA_SLOT(GetDeviceIoControlParameters),
                  ZELTA_SLOT(GetOutputMemory),
                  ZELTA_SLOT(GetInputMemory),
                  ZELTA_SLOT(MarkCancelable),
                  ZELTA_SLOT(UnmarkCancelable),
                  ZELTA_SLOT(CancelSentRequest),
                  ZELTA_SLOT(ForwardToIoQueue),
                  ZELTA_SLOT(Send),
                  ZELTA_SLOT(GetFileObject),
                  ZELTA_SLOT(FormatUsingCurrentType),
                  ZELTA_SLOT(GetRequestorProcessId),
                  ZELTA_SLOT(GetIoQueue),
                  ZELTA_SLOT(Impersonate),
                  ZELTA_SLOT(IsFrom32BitProcess),
                  ZELTA_SLOT(GetCompletionParams)});
}

TEST(Slots, Memory_IsInOrder) {
  using I = IWDFMemory;
  expectObjectFirst<I>();
  expectSlots(8, {ZELTA_SLOT(CopyFromMemory), ZELTA_SLOT(CopyToBuffer), ZELTA_SLOT(CopyFromBuffer),
                  ZELTA_SLOT(GetSize), ZELTA_SLOT(GetDataBuffer), ZELTA_SLOT(SetBuffer)});
}

TEST(Slots, Queue_IsInOrder) {
  using I = IWDFIoQueue;
  expectObjectFirst<I>();
  expectSlots(
      8, {ZELTA_SLOT(GetDevice), ZELTA_SLOT(ConfigureRequestDispatching), ZELTA_SLOT(GetState),
          ZELTA_SLOT(RetrieveNextRequest), ZELTA_SLOT(RetrieveNextRequestByFileObject),
          ZELTA_SLOT(Start), ZELTA_SLOT(Stop), ZELTA_SLOT(StopSynchronously), ZELTA_SLOT(Drain),
          ZELTA_SLOT(DrainSynchronously), ZELTA_SLOT(Purge), ZELTA_SLOT(PurgeSynchronously)});
}

}  // namespace
}  // namespace zelta::framework
