// The module's entry for the Windows loader.
#include <windows.h>

// Runs under the loader lock: no thread is joined and nothing is logged here. The module's logger
// and its threads have ended with its last object, and the module stays mapped while there is a
// logger; at process exit the other threads are gone already and whatever they held stays held, so
// nothing is torn down.
// The class table and the lock count are constant data and an atomic: detaching leaves nothing.
// The thread notifications are not needed here, and a module without thread-local storage is spared
// them. For one with a TLS directory, as the linked-in run-time gives this one, the call fails and
// changes nothing: its result is ignored on purpose. The run-time's own callbacks in that directory
// go on being called, which they must be: they free what a thread of the host's kept there.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void* /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(instance);
  return TRUE;
}
