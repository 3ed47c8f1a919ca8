// What the module's exported functions do.
//
// Threads: everything may be called from any thread. An answer of `canUnload` that the module may
// go is worth nothing to a host that calls into the module meanwhile. The module's state is a
// number, a mutex and constant data, so that nothing is left to be torn down when the process ends
// with threads still inside.
#pragma once

#include "framework/com.h"

namespace zelta {

namespace module {

// The factory of the driver object; `kClassNotAvailable` for any other class.
framework::HRESULT getClassObject(framework::REFCLSID classId, framework::REFIID iid, void** out);
// `kOk` where no object and no lock is left, and then the process's logger has been shut down, if
// there was one; `kFalse` otherwise, also where the logger could not be shut down.
framework::HRESULT canUnload();
// Registration is the installation file's business: these do nothing but log. A tool that unloads
// the module then without having asked leaves it mapped, by its logger's hold on it.
framework::HRESULT registerServer();
framework::HRESULT unregisterServer();

}  // namespace module

}  // namespace zelta
