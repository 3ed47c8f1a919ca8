#include <windows.h>
// windows.h comes first
#include <cfgmgr32.h>
#include <newdev.h>
#include <setupapi.h>

#include <array>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/process/scoped_handle_win32.h"
#include "tools/setup/windows_error.h"
#include "tools/setup/windows_parts.h"

namespace zelta::setup {

namespace {

// As in the INF. A list of texts, which ends with an empty one.
constexpr wchar_t kHardwareId[] = L"Root\\Vornhalt\\ZeltaSmartCardReader\0";
constexpr wchar_t kClassName[] = L"SmartCardReader";
constexpr GUID kClass = {
    0x50DD5230, 0xBA8A, 0x11D1, {0xBF, 0x5D, 0x00, 0x00, 0xF8, 0x05, 0xF5, 0x30}};

struct DeviceListTraits : platform::WindowsHandleTraits<HDEVINFO> {
  static void close(Value list) { SetupDiDestroyDeviceInfoList(list); }
};

// One device, with its own device list.
struct Device {
  platform::ScopedHandle<DeviceListTraits> list;
  SP_DEVINFO_DATA data{sizeof(SP_DEVINFO_DATA), {}, 0, 0};

  std::string name() {
    std::array<wchar_t, MAX_DEVICE_ID_LEN> id{};
    require(SetupDiGetDeviceInstanceIdW(list.get(), &data, id.data(), MAX_DEVICE_ID_LEN, nullptr),
            "cannot read the device's name");
    return utf8(id.data());
  }

  bool isReader() {
    std::array<wchar_t, 512> ids{};
    return SetupDiGetDeviceRegistryPropertyW(list.get(), &data, SPDRP_HARDWAREID, nullptr,
                                             reinterpret_cast<BYTE*>(ids.data()),
                                             sizeof(wchar_t) * (ids.size() - 1), nullptr) &&
           CompareStringOrdinal(ids.data(), -1, kHardwareId, -1, TRUE) == CSTR_EQUAL;
  }

  // Whether Windows has to be restarted for it.
  bool remove() {
    SP_REMOVEDEVICE_PARAMS everywhere{};
    everywhere.ClassInstallHeader = {sizeof(SP_CLASSINSTALL_HEADER), DIF_REMOVE};
    everywhere.Scope = DI_REMOVEDEVICE_GLOBAL;
    // Wine does not know that, and removes it in every hardware profile anyway.
    SetupDiSetClassInstallParamsW(list.get(), &data, &everywhere.ClassInstallHeader,
                                  sizeof(everywhere));
    require(SetupDiCallClassInstaller(DIF_REMOVE, list.get(), &data), "cannot remove the device");
    SP_DEVINSTALL_PARAMS_W parameters{};
    parameters.cbSize = sizeof(parameters);
    return SetupDiGetDeviceInstallParamsW(list.get(), &data, &parameters) &&
           (parameters.Flags & (DI_NEEDREBOOT | DI_NEEDRESTART)) != 0;
  }
};

std::optional<Device> findDevice() {
  Device device;
  device.list.reset(SetupDiGetClassDevsW(&kClass, L"ROOT", nullptr, 0));
  require(device.list.valid(), "cannot list the smart card readers");
  for (DWORD index = 0; SetupDiEnumDeviceInfo(device.list.get(), index, &device.data); ++index) {
    if (device.isReader()) return device;
  }
  return std::nullopt;
}

Device registerDevice() {
  Device device;
  device.list.reset(SetupDiCreateDeviceInfoList(&kClass, nullptr));
  require(device.list.valid() &&
              SetupDiCreateDeviceInfoW(device.list.get(), kClassName, &kClass, nullptr, nullptr,
                                       DICD_GENERATE_ID, &device.data) &&
              SetupDiSetDeviceRegistryPropertyW(device.list.get(), &device.data, SPDRP_HARDWAREID,
                                                reinterpret_cast<const BYTE*>(kHardwareId),
                                                sizeof(kHardwareId)) &&
              SetupDiCallClassInstaller(DIF_REGISTERDEVICE, device.list.get(), &device.data),
          "cannot make the device");
  return device;
}

class ReaderDevice final : public Part {
 public:
  explicit ReaderDevice(const std::wstring& folder)
      : inf_((std::filesystem::path(folder) / L"zelta_vsc.inf").wstring()) {}

  Look look() override {
    std::optional<Device> device = findDevice();
    if (!device) return {Look::State::kAbsent, "none"};
    ULONG status = 0;
    ULONG problem = 0;
    const CONFIGRET result = CM_Get_DevNode_Status(&status, &problem, device->data.DevInst, 0);
    if (result != CR_SUCCESS) return {Look::State::kFaulty, device->name() + ", not connected"};
    if ((status & DN_HAS_PROBLEM) != 0) {
      return {Look::State::kFaulty, device->name() + ", problem " + std::to_string(problem)};
    }
    return {Look::State::kPresent,
            device->name() + ((status & DN_STARTED) != 0 ? ", started" : ", not started")};
  }

  // If the device exists already, its driver is updated.
  Change add() override {
    std::optional<Device> device = findDevice();
    const bool isNew = !device;
    if (isNew) device = registerDevice();
    BOOL restart = FALSE;
    if (!UpdateDriverForPlugAndPlayDevicesW(nullptr, kHardwareId, inf_.c_str(), INSTALLFLAG_FORCE,
                                            &restart)) {
      const DWORD error = GetLastError();
      if (isNew) device->remove();
      throw WindowsError("cannot install the device's driver", error);
    }
    return {isNew, device->name() + (isNew ? "" : ", driver installed anew"), restart != FALSE};
  }

  Change remove() override {
    Change change;
    while (std::optional<Device> device = findDevice()) {
      change.text += (change.made ? ", " : "") + device->name();
      change.needsRestart = device->remove() || change.needsRestart;
      change.made = true;
    }
    return change;
  }

 private:
  const std::wstring inf_;
};

}  // namespace

std::unique_ptr<Part> makeReaderDevice(const std::wstring& folder) {
  return std::make_unique<ReaderDevice>(folder);
}

bool hasReaderDevice() { return findDevice().has_value(); }

}  // namespace zelta::setup
