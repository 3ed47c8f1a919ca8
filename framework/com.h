// The component object basics of the framework's binary interface: plain types, identifiers, the
// root interface and an owning pointer. Self-contained on every platform; the layouts are those of
// the system's own headers, so objects cross between the two freely on Windows.
//
// Threads: reference counts may be changed from any thread; everything else is the object's own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(_WIN32)
#define ZELTA_STDMETHODCALLTYPE __stdcall
#else
#define ZELTA_STDMETHODCALLTYPE
#endif

namespace zelta::framework {

using HRESULT = std::int32_t;
using ULONG = std::uint32_t;
using DWORD = std::uint32_t;
using BOOL = std::int32_t;
using BYTE = std::uint8_t;
using SIZE_T = std::size_t;
using ULONG_PTR = std::uintptr_t;

// 16 bytes: 32, 16, 16 bits and 8 bytes, as the system lays an identifier out.
struct GUID {
  std::uint32_t data1;
  std::uint16_t data2;
  std::uint16_t data3;
  std::uint8_t data4[8];
};
static_assert(sizeof(GUID) == 16, "an identifier has 16 bytes");

inline bool operator==(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }
inline bool operator!=(const GUID& a, const GUID& b) { return !(a == b); }

using IID = GUID;
using CLSID = GUID;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

// The status of a call; negative is a failure.
constexpr HRESULT hresult(std::uint32_t value) { return static_cast<HRESULT>(value); }
constexpr bool succeeded(HRESULT result) { return result >= 0; }
constexpr bool failed(HRESULT result) { return result < 0; }

inline constexpr HRESULT kOk = 0;
inline constexpr HRESULT kFalse = 1;
inline constexpr HRESULT kNoInterface = hresult(0x80004002);
inline constexpr HRESULT kPointer = hresult(0x80004003);
inline constexpr HRESULT kNoAggregation = hresult(0x80040110);
inline constexpr HRESULT kClassNotAvailable = hresult(0x80040111);

inline constexpr IID kIidUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID kIidClassFactory = {
    0x00000001, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

// No virtual destructor: it would add slots to the table.
class IUnknown {
 public:
  static constexpr const IID& iid = kIidUnknown;
  virtual HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) = 0;  // slot 0
  virtual ULONG ZELTA_STDMETHODCALLTYPE AddRef() = 0;                                  // slot 1
  virtual ULONG ZELTA_STDMETHODCALLTYPE Release() = 0;                                 // slot 2

 protected:
  ~IUnknown() = default;
};

class IClassFactory : public IUnknown {
 public:
  static constexpr const IID& iid = kIidClassFactory;
  virtual HRESULT ZELTA_STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid,
                                                         void** out) = 0;  // slot 3
  virtual HRESULT ZELTA_STDMETHODCALLTYPE LockServer(BOOL lock) = 0;       // slot 4

 protected:
  ~IClassFactory() = default;
};

// Owns one reference to a component object.
template <typename Interface>
class ComPtr {
 public:
  ComPtr() = default;
  ComPtr(std::nullptr_t) {}
  // Takes another reference.
  explicit ComPtr(Interface* object) : object_(object) {
    if (object_ != nullptr) object_->AddRef();
  }
  ComPtr(const ComPtr& other) : ComPtr(other.object_) {}
  ComPtr(ComPtr&& other) noexcept : object_(other.detach()) {}
  ComPtr& operator=(ComPtr other) noexcept {
    Interface* mine = object_;
    object_ = other.object_;
    other.object_ = mine;
    return *this;
  }
  ~ComPtr() { reset(); }

  // Takes over the caller's reference.
  static ComPtr adopt(Interface* object) {
    ComPtr owner;
    owner.object_ = object;
    return owner;
  }

  void reset() {
    Interface* object = detach();
    if (object != nullptr) object->Release();
  }
  // Gives the reference up to the caller.
  Interface* detach() {
    Interface* object = object_;
    object_ = nullptr;
    return object;
  }
  // For a getter's out argument; gives up what is held.
  Interface** put() {
    reset();
    return &object_;
  }
  void** putVoid() { return reinterpret_cast<void**>(put()); }

  Interface* get() const { return object_; }
  Interface* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  Interface* object_ = nullptr;
};

}  // namespace zelta::framework
