// The module's entry for the Windows loader.
#include <windows.h>

// Runs under the loader lock: no thread is joined and nothing is logged here. The module's logger
// and its threads have ended when DllCanUnloadNow answered that the module may go; at process exit
// the other threads are gone already and whatever they held stays held, so nothing is torn down.
// The class table and the lock count are constant data and an atomic: detaching leaves nothing.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void* /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(instance);
  return TRUE;
}
