#include "driver/module/module.h"

#include "contract/class_ids.h"
#include "contract/status.h"
#include "diagnostics/log_output.h"
#include "driver/module/class_factory.h"
#include "driver/request/entry_point.h"
#include "driver/request/module_reference.h"
#include "framework/com_object.h"
#include "platform/sync/sync.h"

namespace zelta {

namespace {

using CreateFactory = framework::IClassFactory* (*)();

struct ClassEntry {
  framework::CLSID classId;
  CreateFactory createFactory;
};

framework::IClassFactory* createDriverFactory() { return framework::createObject<ClassFactory>(); }

constexpr ClassEntry kClasses[] = {{kDriverClassId, createDriverFactory}};

framework::HRESULT answerWhetherUnused() {
  return ModuleReference::any() ? framework::kFalse : framework::kOk;
}

framework::HRESULT findClassObject(framework::REFCLSID classId, framework::REFIID iid, void** out) {
  if (out == nullptr) return framework::kPointer;
  *out = nullptr;
  for (const ClassEntry& entry : kClasses) {
    if (entry.classId != classId) continue;
    const auto factory = framework::ComPtr<framework::IClassFactory>::adopt(entry.createFactory());
    if (!factory) return status::kOutOfMemory;
    return factory->QueryInterface(iid, out);
  }
  return framework::kClassNotAvailable;
}

}  // namespace

namespace module {

framework::HRESULT getClassObject(framework::REFCLSID classId, framework::REFIID iid, void** out) {
  // Outlives the section, which logs its end after a factory that failed has been released.
  const ModuleReference inside;
  return runEntryPoint("DllGetClassObject", [&] { return findClassObject(classId, iid, out); });
}

framework::HRESULT canUnload() {
  const platform::MutexLock lock(ModuleReference::unloadMutex());
  // Intentional: no timed section without a logger, since it would make one only to be shut down.
  if (!hasLogger()) return answerWhetherUnused();
  const framework::HRESULT result = runEntryPoint("DllCanUnloadNow", answerWhetherUnused);
  if (result != framework::kOk) return result;
  return endLogging() ? framework::kOk : framework::kFalse;
}

framework::HRESULT registerServer() {
  return runEntryPoint("DllRegisterServer", [] { return framework::kOk; });
}

framework::HRESULT unregisterServer() {
  return runEntryPoint("DllUnregisterServer", [] { return framework::kOk; });
}

}  // namespace module

}  // namespace zelta
