// The PC/SC service's functions, under the same names on every system.
#pragma once

#if defined(_WIN32)

#include <windows.h>
// windows.h comes first
#include <winscard.h>

// The command line has a reader's name in the system's code page.
#undef SCARD_READERSTATE
#define SCARD_READERSTATE SCARD_READERSTATEA
#undef SCardConnect
#define SCardConnect SCardConnectA
#undef SCardGetStatusChange
#define SCardGetStatusChange SCardGetStatusChangeA
#undef SCardStatus
#define SCardStatus SCardStatusA

#else

#include <winscard.h>

#endif

#include <string>

namespace zelta::agent {

#if defined(_WIN32)
// Windows runs the service only while there is a reader.
inline constexpr bool kServiceNeedsReader = true;
// What a context that the service has forgotten is refused with.
inline constexpr LONG kStaleContext = ERROR_INVALID_HANDLE;
inline constexpr char kStartService[] = "sc start SCardSvr";
#else
inline constexpr bool kServiceNeedsReader = false;
inline constexpr LONG kStaleContext = SCARD_E_INVALID_HANDLE;
inline constexpr char kStartService[] = "sudo systemctl start pcscd.socket";
#endif

// For people: what a result of the service's means.
std::string pcscText(LONG result);

}  // namespace zelta::agent
