#include "tests/module/module_world.h"

#include <gtest/gtest.h>

namespace zelta::test {

using framework::ComPtr;
using framework::HRESULT;

namespace fs = std::filesystem;

namespace {

template <typename Function>
Function exported(platform::ModuleHandle module, const char* name) {
  void* address = platform::moduleSymbol(module, name);
  EXPECT_NE(address, nullptr) << name;
  return reinterpret_cast<Function>(address);
}

using PlainExport = HRESULT(ZELTA_STDMETHODCALLTYPE*)();

}  // namespace

std::vector<LogLine> ModuleWorld::log() const { return recordsIn(logFolder()); }

std::size_t ModuleWorld::logFiles() const { return filesIn(logFolder()).size(); }

std::size_t ModuleWorld::countInLog(const std::string& text) const {
  std::size_t count = 0;
  for (const fs::path& file : filesIn(logFolder())) {
    const std::string content = fileContent(file);
    for (std::size_t at = content.find(text); at != std::string::npos;
         at = content.find(text, at + text.size())) {
      ++count;
    }
  }
  return count;
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

}  // namespace zelta::test
