// The numbers that the binary interface is made of.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "contract/class_ids.h"
#include "framework/wdf.h"

namespace zelta::framework {
namespace {

std::string text(const GUID& id) {
  char buffer[40];
  (void)std::snprintf(buffer, sizeof buffer, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                      id.data1, id.data2, id.data3, id.data4[0], id.data4[1], id.data4[2],
                      id.data4[3], id.data4[4], id.data4[5], id.data4[6], id.data4[7]);
  return buffer;
}

TEST(Identifiers, Interfaces_HaveTheFrameworksNumbers) {
  const std::pair<GUID, const char*> rows[] = {
      {IUnknown::iid, "{00000000-0000-0000-C000-000000000046}"},
      {IClassFactory::iid, "{00000001-0000-0000-C000-000000000046}"},
      {IDriverEntry::iid, "{1BEC7499-8881-4F2B-B01C-A1A907304AFC}"},
      {IObjectCleanup::iid, "{244ABE3A-ABBC-43B1-A877-F00077550E6A}"},
      {IWDFObject::iid, "{64275C66-2E71-4060-B5F4-3A76DF96ED3C}"},
      {IWDFDriver::iid, "{AD368EBE-4139-43E3-A875-69B266A9139C}"},
      {IWDFDeviceInitialize::iid, "{74CC381C-0871-43C1-878B-3F7C9D16933D}"},
      {IWDFDevice::iid, "{D657FE45-460A-49C3-8219-766AE8032A80}"},
      {IWDFFile::iid, "{CC8FE04B-FE8B-4245-AFD6-C31BC830C791}"},
      {IWDFIoRequest::iid, "{896DF312-22B4-4A9D-95DD-A364AAF59769}"},
      {IWDFMemory::iid, "{AB098F88-8F16-472A-B0BC-ECA46486C102}"},
      {IWDFIoQueue::iid, "{AE1162B9-8B11-4714-993D-93DC48CC9E8A}"},
      {IRequestCallbackCancel::iid, "{4E9F1A77-4587-4235-81C4-E6D24545A656}"},
      {IQueueCallbackDeviceIoControl::iid, "{C5411408-0F1E-4ED6-A412-36DD15EEE707}"},
      {IPnpCallbackHardware::iid, "{51433BD3-C7C1-4BD8-B4C1-AB1E034626CC}"},
      {IPnpCallback::iid, "{27C32374-CC45-4840-857E-8E5EF7C0EBFF}"},
      {kDriverClassId, "{A44A2DF4-DCA4-4767-8EC4-86FE611C2EA7}"},
      {kSmartCardReaderInterface, "{50DD5230-BA8A-11D1-BF5D-0000F805F530}"}};
  for (const auto& [id, expected] : rows) EXPECT_EQ(text(id), expected);
}

TEST(Identifiers, OneOtherByte_IsAnotherIdentifier) {
  GUID other = kDriverClassId;
  EXPECT_TRUE(other == kDriverClassId);
  other.data4[7] ^= 1;
  EXPECT_TRUE(other != kDriverClassId);
}

static_assert(sizeof(HRESULT) == 4 && sizeof(ULONG) == 4 && sizeof(DWORD) == 4);
static_assert(sizeof(BOOL) == 4 && sizeof(EnumValue) == 4 && sizeof(GUID) == 16);
static_assert(sizeof(SIZE_T) == sizeof(void*) && sizeof(ULONG_PTR) == sizeof(void*));
static_assert(kOk == 0 && kFalse == 1 && succeeded(kFalse) && failed(kPointer));
static_assert(static_cast<std::uint32_t>(kNoInterface) == 0x80004002);
static_assert(static_cast<std::uint32_t>(kPointer) == 0x80004003);
static_assert(static_cast<std::uint32_t>(kNoAggregation) == 0x80040110);
static_assert(static_cast<std::uint32_t>(kClassNotAvailable) == 0x80040111);

}  // namespace
}  // namespace zelta::framework
