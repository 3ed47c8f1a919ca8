// The bodies of the module's exported functions.
//
// Threads: everything may be called from any thread. If `canUnload` answers that the module may go,
// the host must not call into it on another thread meanwhile. The module's state is a number, a
// mutex and constant data, so there is nothing to tear down if the process ends with threads
// inside.
#pragma once

#include "framework/com.h"

namespace zelta {

namespace module {

// The factory of the driver object; `kClassNotAvailable` for any other class.
[[nodiscard]] framework::HRESULT getClassObject(framework::REFCLSID classId, framework::REFIID iid,
                                                void** out);
// `kOk` if no object and no lock is left; the process's logger, if there still is one, has then
// been shut down. `kFalse` otherwise, also if the logger could not be shut down. A host need not
// ask: the logger ends with the last object or lock.
[[nodiscard]] framework::HRESULT canUnload();
// These only log: the installation file does the registration. A tool that makes no object and
// unloads the module without asking leaves it mapped, because the module's logger holds it.
[[nodiscard]] framework::HRESULT registerServer();
[[nodiscard]] framework::HRESULT unregisterServer();

}  // namespace module

}  // namespace zelta
