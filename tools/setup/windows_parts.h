// The parts of an installation on Windows.
#pragma once

#include <memory>
#include <string>

#include "tools/setup/part.h"

namespace zelta::setup {

// %ProgramData%\Vornhalt\ZeltaAgent\logs, open to the system, administrators and the local service
// account, which the driver and the agent run as, and owned by administrators: a user who made it
// before could otherwise open it again. Removed with its files.
std::unique_ptr<Part> makeLogFolder();
// The access list of that folder.
inline constexpr wchar_t kLogFolderAccess[] =
    L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1301bf;;;LS)";

// The driver's values in the registry, with their defaults if they have none.
std::unique_ptr<Part> makeSettings();

// zelta_vsc.inf and its files, in Windows' driver store.
std::unique_ptr<Part> makeDriverPackage(const std::wstring& folder);

// The root-enumerated device, with the driver of the package in that folder.
std::unique_ptr<Part> makeReaderDevice(const std::wstring& folder);
bool hasReaderDevice();

// The agent of that folder as a service. It makes and removes the service itself, with these
// words of its command line.
std::unique_ptr<Part> makeAgentService(const std::wstring& folder, const std::wstring& arguments);

}  // namespace zelta::setup
