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
  std::snprintf(buffer, sizeof buffer, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                id.data1, id.data2, id.data3, id.data4[0], id.data4[1], id.data4[2], id.data4[3],
                id.data4[4], id.data4[5], id.data4[6], id.data4[7]);
  return buffer;
}

TEST(Identifiers, OfTheInterfaces) {
  EXPECT_EQ(text(IUnknown::iid), "{00000000-0000-0000-C000-000000000046}");
  EXPECT_EQ(text(IClassFactory::iid), "{00000001-0000-0000-C000-000000000046}");
  EXPECT_EQ(text(IDriverEntry::iid), "{1BEC7499-8881-4F2B-B01C-A1A907304AFC}");
  EXPECT_EQ(text(IObjectCleanup::iid), "{244ABE3A-ABBC-43B1-A877-F00077550E6A}");
  EXPECT_EQ(text(IWDFObject::iid), "{64275C66-2E71-4060-B5F4-3A76DF96ED3C}");
  EXPECT_EQ(text(IWDFDriver::iid), "{AD368EBE-4139-43E3-A875-69B266A9139C}");
  EXPECT_EQ(text(IWDFDeviceInitialize::iid), "{74CC381C-0871-43C1-878B-3F7C9D16933D}");
  EXPECT_EQ(text(IWDFDevice::iid), "{D657FE45-460A-49C3-8219-766AE8032A80}");
  EXPECT_EQ(text(IWDFFile::iid), "{CC8FE04B-FE8B-4245-AFD6-C31BC830C791}");
  EXPECT_EQ(text(IWDFIoRequest::iid), "{896DF312-22B4-4A9D-95DD-A364AAF59769}");
  EXPECT_EQ(text(IWDFMemory::iid), "{AB098F88-8F16-472A-B0BC-ECA46486C102}");
  EXPECT_EQ(text(IWDFIoQueue::iid), "{AE1162B9-8B11-4714-993D-93DC48CC9E8A}");
  EXPECT_EQ(text(IRequestCallbackCancel::iid), "{4E9F1A77-4587-4235-81C4-E6D24545A656}");
  EXPECT_EQ(text(IQueueCallbackDeviceIoControl::iid), "{C5411408-0F1E-4ED6-A412-36DD15EEE707}");
  EXPECT_EQ(text(IPnpCallbackHardware::iid), "{51433BD3-C7C1-4BD8-B4C1-AB1E034626CC}");
  EXPECT_EQ(text(IPnpCallback::iid), "{27C32374-CC45-4840-857E-8E5EF7C0EBFF}");
}

TEST(Identifiers, OfTheDriverAndItsDevices) {
  EXPECT_EQ(text(kDriverClassId), "{A44A2DF4-DCA4-4767-8EC4-86FE611C2EA7}");
  EXPECT_EQ(text(kSmartCardReaderInterface), "{50DD5230-BA8A-11D1-BF5D-0000F805F530}");
}

TEST(Identifiers, DifferWhereOneByteDoes) {
  GUID other = kDriverClassId;
  EXPECT_TRUE(other == kDriverClassId);
  other.data4[7] ^= 1;
  EXPECT_TRUE(other != kDriverClassId);
}

TEST(Types, HaveTheBinaryInterfacesSizes) {
  EXPECT_EQ(sizeof(HRESULT), 4u);
  EXPECT_EQ(sizeof(ULONG), 4u);
  EXPECT_EQ(sizeof(DWORD), 4u);
  EXPECT_EQ(sizeof(BOOL), 4u);
  EXPECT_EQ(sizeof(EnumValue), 4u);
  EXPECT_EQ(sizeof(SIZE_T), sizeof(void*));
  EXPECT_EQ(sizeof(ULONG_PTR), sizeof(void*));
  EXPECT_EQ(sizeof(GUID), 16u);
}

TEST(Types, StatusesHaveTheSystemsNumbers) {
  EXPECT_EQ(static_cast<std::uint32_t>(kNoInterface), 0x80004002u);
  EXPECT_EQ(static_cast<std::uint32_t>(kPointer), 0x80004003u);
  EXPECT_EQ(static_cast<std::uint32_t>(kClassNotAvailable), 0x80040111u);
  EXPECT_EQ(static_cast<std::uint32_t>(kNoAggregation), 0x80040110u);
  EXPECT_TRUE(failed(kPointer));
  EXPECT_TRUE(succeeded(kFalse));
}

}  // namespace
}  // namespace zelta::framework
