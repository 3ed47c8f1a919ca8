#include "tests/module/module_world.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>

#include "platform/pipe_path.h"

namespace zelta::test {

using framework::ComPtr;
using framework::HRESULT;

namespace fs = std::filesystem;

namespace {

// Every level but the last, which the driver never writes.
constexpr char kRegistryText[] =
    "Windows Registry Editor Version 5.00\n\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin]\n"
    "\"zelta.event_filter_mode\"=dword:00000003\n";

constexpr char kLogFolder[] = "Vornhalt/ZeltaAgent/logs";

template <typename Function>
Function exported(platform::ModuleHandle module, const char* name) {
  void* address = platform::moduleSymbol(module, name);
  EXPECT_NE(address, nullptr) << name;
  return reinterpret_cast<Function>(address);
}

using PlainExport = HRESULT(ZELTA_STDMETHODCALLTYPE*)();

}  // namespace

Bytes number(std::uint32_t value) {
  const auto bytes = encodeNumber(value);
  return {bytes.begin(), bytes.end()};
}

std::uint32_t toNumber(const Bytes& bytes) {
  std::array<std::uint8_t, 4> four{};
  EXPECT_EQ(bytes.size(), four.size());
  std::copy_n(bytes.begin(), std::min(bytes.size(), four.size()), four.begin());
  return decodeNumber(four);
}

Bytes operator+(Bytes front, const Bytes& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu) {
  return number(protocol) + number(kTransmitHeaderSize) + apdu;
}

ModuleWorld::ModuleWorld()
    : programData_("ZELTA_PROGRAM_DATA", folder_.path().string()),
      pipeRoot_("ZELTA_PIPE_ROOT", folder_.file("p")),
      registry_("ZELTA_REGISTRY", folder_.file("registry.reg")) {
  fs::create_directories(folder_.path() / kLogFolder);
  std::ofstream(folder_.file("registry.reg")) << kRegistryText;
}

std::vector<LogLine> ModuleWorld::log() const { return recordsIn(folder_.path() / kLogFolder); }

void ModuleWorld::removeFolder() const {
  std::error_code ignored;
  fs::remove_all(folder_.path(), ignored);
}

bool ModuleWorld::pipeExists(const std::string& pipeName) const {
  return fs::exists(platform::pipeSocketPath(pipeName));
}

DriverExports::DriverExports() {
  std::string reason;
  module_ = platform::openModule(ZELTA_VSC_MODULE, &reason);
  EXPECT_NE(module_, nullptr) << reason;
}

DriverExports::~DriverExports() {
  EXPECT_EQ(canUnload(), framework::kOk);
  std::string reason;
  EXPECT_TRUE(platform::closeModule(module_, &reason)) << reason;
}

HRESULT DriverExports::getClassObject(const framework::CLSID& classId, const framework::IID& wanted,
                                      void** out) const {
  using Export = HRESULT(ZELTA_STDMETHODCALLTYPE*)(framework::REFCLSID, framework::REFIID, void**);
  return exported<Export>(module_, "DllGetClassObject")(classId, wanted, out);
}

HRESULT DriverExports::canUnload() const {
  return exported<PlainExport>(module_, "DllCanUnloadNow")();
}

HRESULT DriverExports::registerServer() const {
  return exported<PlainExport>(module_, "DllRegisterServer")();
}

HRESULT DriverExports::unregisterServer() const {
  return exported<PlainExport>(module_, "DllUnregisterServer")();
}

const std::uint32_t* DriverExports::version() const {
  return static_cast<const std::uint32_t*>(
      platform::moduleSymbol(module_, "Microsoft_WDF_UMDF_Version"));
}

ComPtr<framework::IClassFactory> DriverExports::factory() const {
  ComPtr<framework::IClassFactory> factory;
  EXPECT_EQ(getClassObject(kDriverClass, framework::IClassFactory::iid, factory.putVoid()),
            framework::kOk);
  return factory;
}

ComPtr<framework::IDriverEntry> DriverExports::driver() const {
  ComPtr<framework::IDriverEntry> entry;
  EXPECT_EQ(factory()->CreateInstance(nullptr, framework::IDriverEntry::iid, entry.putVoid()),
            framework::kOk);
  return entry;
}

LinkAgent::Answer TestCard::answers() {
  return [this](const LinkAgent::Command& command) -> std::optional<Bytes> {
    if (!present_) return Bytes();
    return command.code == AgentCommand::QueryTransmit ? responseTo(command.apdu) : atr_;
  };
}

}  // namespace zelta::test
