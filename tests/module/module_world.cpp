#include "tests/module/module_world.h"

#include <gtest/gtest.h>

#include "contract/class_ids.h"

namespace zelta::test {

using framework::ComPtr;
using framework::HRESULT;

namespace fs = std::filesystem;

namespace {

// The identifiers' own references are macros of the Windows headers.
using GetClassObject = HRESULT(ZELTA_STDMETHODCALLTYPE*)(const framework::GUID&,
                                                         const framework::GUID&, void**);

template <typename Function>
Function exported(platform::ModuleHandle module, const char* name) {
  void* address = platform::moduleSymbol(module, name);
  EXPECT_NE(address, nullptr) << name;
  return reinterpret_cast<Function>(address);
}

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

DriverExports::DriverExports(AtTheEnd end) : end_(end) {
  std::string reason;
  module_ = platform::openModule(ZELTA_VSC_MODULE, &reason);
  EXPECT_NE(module_, nullptr) << reason;
}

DriverExports::~DriverExports() {
  if (end_ == AtTheEnd::kMustGo) {
    EXPECT_EQ(canUnload(), framework::kOk);
  }
  EXPECT_TRUE(platform::closeModule(module_));
}

HRESULT DriverExports::call(const char* name) const {
  return exported<HRESULT(ZELTA_STDMETHODCALLTYPE*)()>(module_, name)();
}

ComPtr<framework::IClassFactory> DriverExports::factory() const {
  ComPtr<framework::IClassFactory> factory;
  EXPECT_EQ(exported<GetClassObject>(module_, "DllGetClassObject")(
                kDriverClassId, framework::IClassFactory::iid, factory.putVoid()),
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
