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

struct Row {
  std::size_t slot;
  std::size_t expected;
  const char* operation;
};

void expectSlots(std::initializer_list<Row> rows) {
  for (const Row& row : rows) EXPECT_EQ(row.slot, row.expected) << row.operation;
}

// The first three operations, as every interface inherits them.
template <typename Interface>
void expectUnknownFirst() {
  expectSlots({{slotOf(&Interface::QueryInterface), 0, "QueryInterface"},
               {slotOf(&Interface::AddRef), 1, "AddRef"},
               {slotOf(&Interface::Release), 2, "Release"}});
  EXPECT_EQ(sizeof(Interface), sizeof(void*)) << "an interface is a pointer to its table";
}

template <typename Interface>
void expectObjectFirst() {
  expectUnknownFirst<Interface>();
  expectSlots({{slotOf(&Interface::DeleteWdfObject), 3, "DeleteWdfObject"},
               {slotOf(&Interface::AssignContext), 4, "AssignContext"},
               {slotOf(&Interface::RetrieveContext), 5, "RetrieveContext"},
               {slotOf(&Interface::AcquireLock), 6, "AcquireLock"},
               {slotOf(&Interface::ReleaseLock), 7, "ReleaseLock"}});
}

TEST(Slots, OfTheDriversInterfaces) {
  expectUnknownFirst<IUnknown>();
  expectUnknownFirst<IClassFactory>();
  expectUnknownFirst<IDriverEntry>();
  expectUnknownFirst<IPnpCallbackHardware>();
  expectUnknownFirst<IPnpCallback>();
  expectUnknownFirst<IRequestCallbackCancel>();
  expectUnknownFirst<IQueueCallbackDeviceIoControl>();
  expectUnknownFirst<IObjectCleanup>();
  expectSlots({
      {slotOf(&IClassFactory::CreateInstance), 3, "CreateInstance"},
      {slotOf(&IClassFactory::LockServer), 4, "LockServer"},
      {slotOf(&IDriverEntry::OnInitialize), 3, "OnInitialize"},
      {slotOf(&IDriverEntry::OnDeviceAdd), 4, "OnDeviceAdd"},
      {slotOf(&IDriverEntry::OnDeinitialize), 5, "OnDeinitialize"},
      {slotOf(&IPnpCallbackHardware::OnPrepareHardware), 3, "OnPrepareHardware"},
      {slotOf(&IPnpCallbackHardware::OnReleaseHardware), 4, "OnReleaseHardware"},
      {slotOf(&IPnpCallback::OnD0Entry), 3, "OnD0Entry"},
      {slotOf(&IPnpCallback::OnD0Exit), 4, "OnD0Exit"},
      {slotOf(&IPnpCallback::OnSurpriseRemoval), 5, "OnSurpriseRemoval"},
      {slotOf(&IPnpCallback::OnQueryRemove), 6, "OnQueryRemove"},
      {slotOf(&IPnpCallback::OnQueryStop), 7, "OnQueryStop"},
      {slotOf(&IRequestCallbackCancel::OnCancel), 3, "OnCancel"},
      {slotOf(&IQueueCallbackDeviceIoControl::OnDeviceIoControl), 3, "OnDeviceIoControl"},
      {slotOf(&IObjectCleanup::OnCleanup), 3, "OnCleanup"},
  });
}

TEST(Slots, OfTheFrameworksDriver) {
  expectObjectFirst<IWDFObject>();
  expectObjectFirst<IWDFDriver>();
  expectSlots({
      {slotOf(&IWDFDriver::CreateDevice), 8, "CreateDevice"},
      {slotOf(&IWDFDriver::CreateWdfObject), 9, "CreateWdfObject"},
      {slotOf(&IWDFDriver::CreatePreallocatedWdfMemory), 10, "CreatePreallocatedWdfMemory"},
      {slotOf(&IWDFDriver::CreateWdfMemory), 11, "CreateWdfMemory"},
      {slotOf(&IWDFDriver::IsVersionAvailable), 12, "IsVersionAvailable"},
      {slotOf(&IWDFDriver::RetrieveVersionString), 13, "RetrieveVersionString"},
  });
}

TEST(Slots, OfTheFrameworksDeviceInitialiser) {
  expectUnknownFirst<IWDFDeviceInitialize>();
  using I = IWDFDeviceInitialize;
  expectSlots({
      {slotOf(&I::SetFilter), 3, "SetFilter"},
      {slotOf(&I::SetLockingConstraint), 4, "SetLockingConstraint"},
      {slotOf(&I::RetrieveDevicePropertyStore), 5, "RetrieveDevicePropertyStore"},
      {slotOf(&I::SetPowerPolicyOwnership), 6, "SetPowerPolicyOwnership"},
      {slotOf(&I::AutoForwardCreateCleanupClose), 7, "AutoForwardCreateCleanupClose"},
      {slotOf(&I::RetrieveDeviceInstanceId), 8, "RetrieveDeviceInstanceId"},
      {slotOf(&I::SetPnpCapability), 9, "SetPnpCapability"},
      {slotOf(&I::GetPnpCapability), 10, "GetPnpCapability"},
  });
}

TEST(Slots, OfTheFrameworksDevice) {
  expectObjectFirst<IWDFDevice>();
  using I = IWDFDevice;
  expectSlots({
      {slotOf(&I::RetrieveDevicePropertyStore), 8, "RetrieveDevicePropertyStore"},
      {slotOf(&I::GetDriver), 9, "GetDriver"},
      {slotOf(&I::RetrieveDeviceInstanceId), 10, "RetrieveDeviceInstanceId"},
      {slotOf(&I::GetDefaultIoTarget), 11, "GetDefaultIoTarget"},
      {slotOf(&I::CreateWdfFile), 12, "CreateWdfFile"},
      {slotOf(&I::GetDefaultIoQueue), 13, "GetDefaultIoQueue"},
      {slotOf(&I::CreateIoQueue), 14, "CreateIoQueue"},
      {slotOf(&I::CreateDeviceInterface), 15, "CreateDeviceInterface"},
      {slotOf(&I::AssignDeviceInterfaceState), 16, "AssignDeviceInterfaceState"},
      {slotOf(&I::RetrieveDeviceName), 17, "RetrieveDeviceName"},
      {slotOf(&I::PostEvent), 18, "PostEvent"},
      {slotOf(&I::ConfigureRequestDispatching), 19, "ConfigureRequestDispatching"},
      {slotOf(&I::SetPnpState), 20, "SetPnpState"},
      {slotOf(&I::GetPnpState), 21, "GetPnpState"},
      {slotOf(&I::CommitPnpState), 22, "CommitPnpState"},
      {slotOf(&I::CreateRequest), 23, "CreateRequest"},
      {slotOf(&I::CreateSymbolicLink), 24, "CreateSymbolicLink"},
  });
}

TEST(Slots, OfTheFrameworksFile) {
  expectObjectFirst<IWDFFile>();
  expectSlots({{slotOf(&IWDFFile::RetrieveFileName), 8, "RetrieveFileName"},
               {slotOf(&IWDFFile::GetDevice), 9, "GetDevice"}});
}

TEST(Slots, OfTheFrameworksRequest) {
  expectObjectFirst<IWDFIoRequest>();
  using I = IWDFIoRequest;
  expectSlots({
      {slotOf(&I::CompleteWithInformation), 8, "CompleteWithInformation"},
      {slotOf(&I::SetInformation), 9, "SetInformation"},
      {slotOf(&I::Complete), 10, "Complete"},
      {slotOf(&I::SetCompletionCallback), 11, "SetCompletionCallback"},
      {slotOf(&I::GetType), 12, "GetType"},
      {slotOf(&I::GetCreateParameters), 13, "GetCreateParameters"},
      {slotOf(&I::GetReadParameters), 14, "GetReadParameters"},
      {slotOf(&I::GetWriteParameters), 15, "GetWriteParameters"},
      {slotOf(&I::GetDeviceIoControlParameters), 16, "GetDeviceIoControlParameters"},
      {slotOf(&I::GetOutputMemory), 17, "GetOutputMemory"},
      {slotOf(&I::GetInputMemory), 18, "GetInputMemory"},
      {slotOf(&I::MarkCancelable), 19, "MarkCancelable"},
      {slotOf(&I::UnmarkCancelable), 20, "UnmarkCancelable"},
      {slotOf(&I::CancelSentRequest), 21, "CancelSentRequest"},
      {slotOf(&I::ForwardToIoQueue), 22, "ForwardToIoQueue"},
      {slotOf(&I::Send), 23, "Send"},
      {slotOf(&I::GetFileObject), 24, "GetFileObject"},
      {slotOf(&I::FormatUsingCurrentType), 25, "FormatUsingCurrentType"},
      {slotOf(&I::GetRequestorProcessId), 26, "GetRequestorProcessId"},
      {slotOf(&I::GetIoQueue), 27, "GetIoQueue"},
      {slotOf(&I::Impersonate), 28, "Impersonate"},
      {slotOf(&I::IsFrom32BitProcess), 29, "IsFrom32BitProcess"},
      {slotOf(&I::GetCompletionParams), 30, "GetCompletionParams"},
  });
}

TEST(Slots, OfTheFrameworksMemory) {
  expectObjectFirst<IWDFMemory>();
  expectSlots({{slotOf(&IWDFMemory::CopyFromMemory), 8, "CopyFromMemory"},
               {slotOf(&IWDFMemory::CopyToBuffer), 9, "CopyToBuffer"},
               {slotOf(&IWDFMemory::CopyFromBuffer), 10, "CopyFromBuffer"},
               {slotOf(&IWDFMemory::GetSize), 11, "GetSize"},
               {slotOf(&IWDFMemory::GetDataBuffer), 12, "GetDataBuffer"},
               {slotOf(&IWDFMemory::SetBuffer), 13, "SetBuffer"}});
}

TEST(Slots, OfTheFrameworksQueue) {
  expectObjectFirst<IWDFIoQueue>();
  using I = IWDFIoQueue;
  expectSlots({
      {slotOf(&I::GetDevice), 8, "GetDevice"},
      {slotOf(&I::ConfigureRequestDispatching), 9, "ConfigureRequestDispatching"},
      {slotOf(&I::GetState), 10, "GetState"},
      {slotOf(&I::RetrieveNextRequest), 11, "RetrieveNextRequest"},
      {slotOf(&I::RetrieveNextRequestByFileObject), 12, "RetrieveNextRequestByFileObject"},
      {slotOf(&I::Start), 13, "Start"},
      {slotOf(&I::Stop), 14, "Stop"},
      {slotOf(&I::StopSynchronously), 15, "StopSynchronously"},
      {slotOf(&I::Drain), 16, "Drain"},
      {slotOf(&I::DrainSynchronously), 17, "DrainSynchronously"},
      {slotOf(&I::Purge), 18, "Purge"},
      {slotOf(&I::PurgeSynchronously), 19, "PurgeSynchronously"},
  });
}

}  // namespace
}  // namespace zelta::framework
