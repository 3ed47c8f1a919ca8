// The module's entry for the Windows loader.
#include <windows.h>

// Runs under the loader lock: no thread is joined and nothing is logged here. The module's logger
// and its threads have ended with its last object, and the module stays mapped while there is a
// logger; at process exit the other threads are already gone and their locks stay held, so nothing
// is torn down.
// The class table and the lock count are constant data and an atomic: detaching leaves nothing.
// Turns off thread notifications, which a module without thread-local storage does not need. If a
// linked-in run-time gives the module a TLS directory, the call fails and changes nothing. That is
// intended: the run-time's callbacks there free the storage of the host's threads.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void* /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(instance);
  return TRUE;
}
