// The user-mode driver framework 1.11 as its binary interface has it: every interface is a table of
// functions in the order below. Slots 0 to 2 are QueryInterface, AddRef and Release; those of an
// interface's base come first. A wrong order is a crash in the operating system's host.
//
// A getter that yields an interface pointer yields a new reference that its caller releases.
// Strings are zero-terminated; lengths of strings are in characters, of memory in bytes.
#pragma once

#include "framework/com.h"

namespace zelta::framework {

// Enumerations cross the interface as 32-bit numbers.
using EnumValue = std::int32_t;

// WdfCallbackConstraintNone. To Windows' own host 1 is the device-level constraint: it calls the
// device's I/O and cancel callbacks one at a time, and power callbacks concurrently with them. A
// driver that passes this has to work both ways.
inline constexpr EnumValue kCallbackConstraintNone = 1;
inline constexpr EnumValue kDispatchSequential = 1;          // WdfIoQueueDispatchSequential
inline constexpr EnumValue kDispatchParallel = 2;            // WdfIoQueueDispatchParallel
inline constexpr EnumValue kPowerDeviceD0 = 1;               // WdfPowerDeviceD0
inline constexpr EnumValue kPowerDeviceD3Final = 5;          // WdfPowerDeviceD3Final
inline constexpr EnumValue kRequestTypeDeviceIoControl = 5;  // WdfRequestDeviceIoControl

class IWDFDriver;
class IWDFDeviceInitialize;
class IWDFDevice;
class IWDFFile;
class IWDFIoQueue;
class IWDFIoRequest;
class IWDFMemory;
class IWDFObject;

inline constexpr IID kIidObjectCleanup = {
    0x244ABE3A, 0xABBC, 0x43B1, {0xA8, 0x77, 0xF0, 0x00, 0x77, 0x55, 0x0E, 0x6A}};

class IObjectCleanup : public IUnknown {
 public:
  static constexpr const IID& iid = kIidObjectCleanup;
  // slot 3
  virtual void ZELTA_STDMETHODCALLTYPE OnCleanup(IWDFObject* object) = 0;

 protected:
  ~IObjectCleanup() = default;
};

inline constexpr IID kIidWDFObject = {
    0x64275C66, 0x2E71, 0x4060, {0xB5, 0xF4, 0x3A, 0x76, 0xDF, 0x96, 0xED, 0x3C}};

class IWDFObject : public IUnknown {
 public:
  static constexpr const IID& iid = kIidWDFObject;
  // slot 3
  virtual HRESULT ZELTA_STDMETHODCALLTYPE DeleteWdfObject() = 0;
  // slot 4
  virtual HRESULT ZELTA_STDMETHODCALLTYPE AssignContext(IObjectCleanup* cleanup, void* context) = 0;
  // slot 5
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveContext(void** context) = 0;
  // slot 6
  virtual void ZELTA_STDMETHODCALLTYPE AcquireLock() = 0;
  // slot 7
  virtual void ZELTA_STDMETHODCALLTYPE ReleaseLock() = 0;

 protected:
  ~IWDFObject() = default;
};

inline constexpr IID kIidWDFDriver = {
    0xAD368EBE, 0x4139, 0x43E3, {0xA8, 0x75, 0x69, 0xB2, 0x66, 0xA9, 0x13, 0x9C}};

class IWDFDriver : public IWDFObject {
 public:
  static constexpr const IID& iid = kIidWDFDriver;
  // slot 8
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateDevice(IWDFDeviceInitialize* init,
                                                       IUnknown* callback, IWDFDevice** device) = 0;
  // slot 9
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfObject(IUnknown* callback, IWDFObject* parent,
                                                          IWDFObject** object) = 0;
  // slot 10
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreatePreallocatedWdfMemory(BYTE* buffer, SIZE_T size,
                                                                      IUnknown* callback,
                                                                      IWDFObject* parent,
                                                                      IWDFMemory** memory) = 0;
  // slot 11
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfMemory(SIZE_T size, IUnknown* callback,
                                                          IWDFObject* parent,
                                                          IWDFMemory** memory) = 0;
  // slot 12
  virtual BOOL ZELTA_STDMETHODCALLTYPE IsVersionAvailable(void* version) = 0;
  // slot 13
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveVersionString(wchar_t* version,
                                                                DWORD* length) = 0;

 protected:
  ~IWDFDriver() = default;
};

inline constexpr IID kIidWDFDeviceInitialize = {
    0x74CC381C, 0x0871, 0x43C1, {0x87, 0x8B, 0x3F, 0x7C, 0x9D, 0x16, 0x93, 0x3D}};

class IWDFDeviceInitialize : public IUnknown {
 public:
  static constexpr const IID& iid = kIidWDFDeviceInitialize;
  // slot 3
  virtual void ZELTA_STDMETHODCALLTYPE SetFilter() = 0;
  // slot 4
  virtual void ZELTA_STDMETHODCALLTYPE SetLockingConstraint(EnumValue constraint) = 0;
  // slot 5
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDevicePropertyStore(const wchar_t* service,
                                                                      EnumValue flags, void** store,
                                                                      EnumValue* disposition) = 0;
  // slot 6
  virtual void ZELTA_STDMETHODCALLTYPE SetPowerPolicyOwnership(BOOL owner) = 0;
  // slot 7
  virtual void ZELTA_STDMETHODCALLTYPE AutoForwardCreateCleanupClose(EnumValue forward) = 0;
  // slot 8
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceInstanceId(wchar_t* id, DWORD* length) = 0;
  // slot 9
  virtual void ZELTA_STDMETHODCALLTYPE SetPnpCapability(EnumValue capability, EnumValue value) = 0;
  // slot 10
  virtual EnumValue ZELTA_STDMETHODCALLTYPE GetPnpCapability(EnumValue capability) = 0;

 protected:
  ~IWDFDeviceInitialize() = default;
};

inline constexpr IID kIidWDFDevice = {
    0xD657FE45, 0x460A, 0x49C3, {0x82, 0x19, 0x76, 0x6A, 0xE8, 0x03, 0x2A, 0x80}};

class IWDFDevice : public IWDFObject {
 public:
  static constexpr const IID& iid = kIidWDFDevice;
  // slot 8
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDevicePropertyStore(const wchar_t* service,
                                                                      EnumValue flags, void** store,
                                                                      EnumValue* disposition) = 0;
  // slot 9
  virtual void ZELTA_STDMETHODCALLTYPE GetDriver(IWDFDriver** driver) = 0;
  // slot 10
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceInstanceId(wchar_t* id, DWORD* length) = 0;
  // slot 11
  virtual void ZELTA_STDMETHODCALLTYPE GetDefaultIoTarget(void** target) = 0;
  // slot 12
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfFile(const wchar_t* name, void** file) = 0;
  // slot 13
  virtual void ZELTA_STDMETHODCALLTYPE GetDefaultIoQueue(IWDFIoQueue** queue) = 0;
  // slot 14
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateIoQueue(IUnknown* callback, BOOL defaultQueue,
                                                        EnumValue dispatchType, BOOL powerManaged,
                                                        BOOL allowZeroLength,
                                                        IWDFIoQueue** queue) = 0;
  // slot 15
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateDeviceInterface(const GUID* interfaceClass,
                                                                const wchar_t* referenceString) = 0;
  // slot 16
  virtual HRESULT ZELTA_STDMETHODCALLTYPE AssignDeviceInterfaceState(const GUID* interfaceClass,
                                                                     const wchar_t* referenceString,
                                                                     BOOL enable) = 0;
  // slot 17
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceName(wchar_t* name, DWORD* length) = 0;
  // slot 18
  virtual HRESULT ZELTA_STDMETHODCALLTYPE PostEvent(const GUID& event, EnumValue type, BYTE* data,
                                                    DWORD size) = 0;
  // slot 19
  virtual HRESULT ZELTA_STDMETHODCALLTYPE ConfigureRequestDispatching(IWDFIoQueue* queue,
                                                                      EnumValue type,
                                                                      BOOL forward) = 0;
  // slot 20
  virtual void ZELTA_STDMETHODCALLTYPE SetPnpState(EnumValue state, EnumValue value) = 0;
  // slot 21
  virtual EnumValue ZELTA_STDMETHODCALLTYPE GetPnpState(EnumValue state) = 0;
  // slot 22
  virtual void ZELTA_STDMETHODCALLTYPE CommitPnpState() = 0;
  // slot 23
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateRequest(IUnknown* callback, IWDFObject* parent,
                                                        IWDFIoRequest** request) = 0;
  // slot 24
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateSymbolicLink(const wchar_t* link) = 0;

 protected:
  ~IWDFDevice() = default;
};

inline constexpr IID kIidWDFFile = {
    0xCC8FE04B, 0xFE8B, 0x4245, {0xAF, 0xD6, 0xC3, 0x1B, 0xC8, 0x30, 0xC7, 0x91}};

class IWDFFile : public IWDFObject {
 public:
  static constexpr const IID& iid = kIidWDFFile;
  // slot 8
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveFileName(wchar_t* name,
                                                           DWORD* lengthInCharacters) = 0;
  // slot 9
  virtual void ZELTA_STDMETHODCALLTYPE GetDevice(IWDFDevice** device) = 0;

 protected:
  ~IWDFFile() = default;
};

inline constexpr IID kIidRequestCallbackCancel = {
    0x4E9F1A77, 0x4587, 0x4235, {0x81, 0xC4, 0xE6, 0xD2, 0x45, 0x45, 0xA6, 0x56}};

class IRequestCallbackCancel : public IUnknown {
 public:
  static constexpr const IID& iid = kIidRequestCallbackCancel;
  // slot 3
  virtual void ZELTA_STDMETHODCALLTYPE OnCancel(IWDFIoRequest* request) = 0;

 protected:
  ~IRequestCallbackCancel() = default;
};

inline constexpr IID kIidWDFIoRequest = {
    0x896DF312, 0x22B4, 0x4A9D, {0x95, 0xDD, 0xA3, 0x64, 0xAA, 0xF5, 0x97, 0x69}};

class IWDFIoRequest : public IWDFObject {
 public:
  static constexpr const IID& iid = kIidWDFIoRequest;
  // slot 8
  virtual void ZELTA_STDMETHODCALLTYPE CompleteWithInformation(HRESULT status,
                                                               SIZE_T information) = 0;
  // slot 9
  virtual void ZELTA_STDMETHODCALLTYPE SetInformation(ULONG_PTR information) = 0;
  // slot 10
  virtual void ZELTA_STDMETHODCALLTYPE Complete(HRESULT status) = 0;
  // slot 11
  virtual void ZELTA_STDMETHODCALLTYPE SetCompletionCallback(IUnknown* callback, void* context) = 0;
  // slot 12
  virtual EnumValue ZELTA_STDMETHODCALLTYPE GetType() = 0;
  // slot 13
  virtual void ZELTA_STDMETHODCALLTYPE GetCreateParameters(ULONG* options,
                                                           std::uint16_t* fileAttributes,
                                                           std::uint16_t* shareAccess) = 0;
  // slot 14
  virtual void ZELTA_STDMETHODCALLTYPE GetReadParameters(SIZE_T* length, std::int64_t* offset,
                                                         ULONG* key) = 0;
  // slot 15
  virtual void ZELTA_STDMETHODCALLTYPE GetWriteParameters(SIZE_T* length, std::int64_t* offset,
                                                          ULONG* key) = 0;
  // slot 16
  virtual void ZELTA_STDMETHODCALLTYPE GetDeviceIoControlParameters(ULONG* code, SIZE_T* inLength,
                                                                    SIZE_T* outLength) = 0;
  // slot 17
  virtual void ZELTA_STDMETHODCALLTYPE GetOutputMemory(IWDFMemory** memory) = 0;
  // slot 18
  virtual void ZELTA_STDMETHODCALLTYPE GetInputMemory(IWDFMemory** memory) = 0;
  // slot 19
  virtual void ZELTA_STDMETHODCALLTYPE MarkCancelable(IRequestCallbackCancel* callback) = 0;
  // slot 20
  virtual HRESULT ZELTA_STDMETHODCALLTYPE UnmarkCancelable() = 0;
  // slot 21
  virtual BOOL ZELTA_STDMETHODCALLTYPE CancelSentRequest() = 0;
  // slot 22
  virtual HRESULT ZELTA_STDMETHODCALLTYPE ForwardToIoQueue(IWDFIoQueue* queue) = 0;
  // slot 23
  virtual HRESULT ZELTA_STDMETHODCALLTYPE Send(void* target, ULONG flags, std::int64_t timeout) = 0;
  // slot 24
  virtual void ZELTA_STDMETHODCALLTYPE GetFileObject(IWDFFile** file) = 0;
  // slot 25
  virtual void ZELTA_STDMETHODCALLTYPE FormatUsingCurrentType() = 0;
  // slot 26
  virtual ULONG ZELTA_STDMETHODCALLTYPE GetRequestorProcessId() = 0;
  // slot 27
  virtual void ZELTA_STDMETHODCALLTYPE GetIoQueue(IWDFIoQueue** queue) = 0;
  // slot 28
  virtual HRESULT ZELTA_STDMETHODCALLTYPE Impersonate(EnumValue level, IUnknown* callback,
                                                      void* context) = 0;
  // slot 29
  virtual BOOL ZELTA_STDMETHODCALLTYPE IsFrom32BitProcess() = 0;
  // slot 30
  virtual void ZELTA_STDMETHODCALLTYPE GetCompletionParams(void** parameters) = 0;

 protected:
  ~IWDFIoRequest() = default;
};

inline constexpr IID kIidWDFMemory = {
    0xAB098F88, 0x8F16, 0x472A, {0xB0, 0xBC, 0xEC, 0xA4, 0x64, 0x86, 0xC1, 0x02}};

class IWDFMemory : public IWDFObject {
 public:
  static constexpr const IID& iid = kIidWDFMemory;
  // slot 8
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CopyFromMemory(IWDFMemory* source,
                                                         void* sourceOffset) = 0;
  // slot 9
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CopyToBuffer(ULONG_PTR sourceOffset, void* target,
                                                       SIZE_T size) = 0;
  // slot 10
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CopyFromBuffer(ULONG_PTR destinationOffset,
                                                         const void* source, SIZE_T size) = 0;
  // slot 11
  virtual SIZE_T ZELTA_STDMETHODCALLTYPE GetSize() = 0;
  // slot 12
  virtual void* ZELTA_STDMETHODCALLTYPE GetDataBuffer(SIZE_T* size) = 0;
  // slot 13
  virtual void ZELTA_STDMETHODCALLTYPE SetBuffer(void* buffer, SIZE_T size) = 0;

 protected:
  ~IWDFMemory() = default;
};

inline constexpr IID kIidWDFIoQueue = {
    0xAE1162B9, 0x8B11, 0x4714, {0x99, 0x3D, 0x93, 0xDC, 0x48, 0xCC, 0x9E, 0x8A}};

class IWDFIoQueue : public IWDFObject {
 public:
  static constexpr const IID& iid = kIidWDFIoQueue;
  // slot 8
  virtual void ZELTA_STDMETHODCALLTYPE GetDevice(IWDFDevice** device) = 0;
  // slot 9
  virtual HRESULT ZELTA_STDMETHODCALLTYPE ConfigureRequestDispatching(EnumValue type,
                                                                      BOOL forward) = 0;
  // slot 10
  virtual EnumValue ZELTA_STDMETHODCALLTYPE GetState(ULONG* queued, ULONG* inDriver) = 0;
  // slot 11
  virtual HRESULT ZELTA_STDMETHODCALLTYPE RetrieveNextRequest(IWDFIoRequest** request) = 0;
  // slot 12
  virtual HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveNextRequestByFileObject(IWDFFile* file, IWDFIoRequest** request) = 0;
  // slot 13
  virtual void ZELTA_STDMETHODCALLTYPE Start() = 0;
  // slot 14
  virtual void ZELTA_STDMETHODCALLTYPE Stop(IUnknown* callback) = 0;
  // slot 15
  virtual void ZELTA_STDMETHODCALLTYPE StopSynchronously() = 0;
  // slot 16
  virtual void ZELTA_STDMETHODCALLTYPE Drain(IUnknown* callback) = 0;
  // slot 17
  virtual void ZELTA_STDMETHODCALLTYPE DrainSynchronously() = 0;
  // slot 18
  virtual void ZELTA_STDMETHODCALLTYPE Purge(IUnknown* callback) = 0;
  // slot 19
  virtual void ZELTA_STDMETHODCALLTYPE PurgeSynchronously() = 0;

 protected:
  ~IWDFIoQueue() = default;
};

inline constexpr IID kIidDriverEntry = {
    0x1BEC7499, 0x8881, 0x4F2B, {0xB0, 0x1C, 0xA1, 0xA9, 0x07, 0x30, 0x4A, 0xFC}};

class IDriverEntry : public IUnknown {
 public:
  static constexpr const IID& iid = kIidDriverEntry;
  // slot 3
  virtual HRESULT ZELTA_STDMETHODCALLTYPE OnInitialize(IWDFDriver* driver) = 0;
  // slot 4
  virtual HRESULT ZELTA_STDMETHODCALLTYPE OnDeviceAdd(IWDFDriver* driver,
                                                      IWDFDeviceInitialize* init) = 0;
  // slot 5
  virtual void ZELTA_STDMETHODCALLTYPE OnDeinitialize(IWDFDriver* driver) = 0;

 protected:
  ~IDriverEntry() = default;
};

inline constexpr IID kIidPnpCallbackHardware = {
    0x51433BD3, 0xC7C1, 0x4BD8, {0xB4, 0xC1, 0xAB, 0x1E, 0x03, 0x46, 0x26, 0xCC}};

class IPnpCallbackHardware : public IUnknown {
 public:
  static constexpr const IID& iid = kIidPnpCallbackHardware;
  // slot 3
  virtual HRESULT ZELTA_STDMETHODCALLTYPE OnPrepareHardware(IWDFDevice* device) = 0;
  // slot 4
  virtual HRESULT ZELTA_STDMETHODCALLTYPE OnReleaseHardware(IWDFDevice* device) = 0;

 protected:
  ~IPnpCallbackHardware() = default;
};

inline constexpr IID kIidPnpCallback = {
    0x27C32374, 0xCC45, 0x4840, {0x85, 0x7E, 0x8E, 0x5E, 0xF7, 0xC0, 0xEB, 0xFF}};

class IPnpCallback : public IUnknown {
 public:
  static constexpr const IID& iid = kIidPnpCallback;
  // slot 3
  virtual HRESULT ZELTA_STDMETHODCALLTYPE OnD0Entry(IWDFDevice* device,
                                                    EnumValue previousState) = 0;
  // slot 4
  virtual HRESULT ZELTA_STDMETHODCALLTYPE OnD0Exit(IWDFDevice* device, EnumValue newState) = 0;
  // slot 5
  virtual void ZELTA_STDMETHODCALLTYPE OnSurpriseRemoval(IWDFDevice* device) = 0;
  // slot 6
  virtual HRESULT ZELTA_STDMETHODCALLTYPE OnQueryRemove(IWDFDevice* device) = 0;
  // slot 7
  virtual HRESULT ZELTA_STDMETHODCALLTYPE OnQueryStop(IWDFDevice* device) = 0;

 protected:
  ~IPnpCallback() = default;
};

inline constexpr IID kIidQueueCallbackDeviceIoControl = {
    0xC5411408, 0x0F1E, 0x4ED6, {0xA4, 0x12, 0x36, 0xDD, 0x15, 0xEE, 0xE7, 0x07}};

class IQueueCallbackDeviceIoControl : public IUnknown {
 public:
  static constexpr const IID& iid = kIidQueueCallbackDeviceIoControl;
  // slot 3
  virtual void ZELTA_STDMETHODCALLTYPE OnDeviceIoControl(IWDFIoQueue* queue, IWDFIoRequest* request,
                                                         ULONG code, SIZE_T inLength,
                                                         SIZE_T outLength) = 0;

 protected:
  ~IQueueCallbackDeviceIoControl() = default;
};

}  // namespace zelta::framework
