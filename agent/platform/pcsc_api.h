// The PC/SC service's functions and their differences between systems.
#pragma once

#if defined(_WIN32)

#include <windows.h>
// windows.h comes first
#include <winscard.h>

#else

#include <winscard.h>

#endif

#include <string>

namespace zelta::agent {

#if defined(_WIN32)
using ReaderName = std::wstring;
// Windows runs the service only while there is a reader.
inline constexpr bool kServiceNeedsReader = true;
// The error for a context that the service has forgotten.
inline constexpr LONG kStaleContext = ERROR_INVALID_HANDLE;
inline constexpr char kStartService[] = "sc start SCardSvr";
inline constexpr char kShowReaders[] = "certutil -scinfo";
#else
using ReaderName = std::string;
inline constexpr bool kServiceNeedsReader = false;
inline constexpr LONG kStaleContext = SCARD_E_INVALID_HANDLE;
inline constexpr char kStartService[] = "sudo systemctl start pcscd.socket";
inline constexpr char kShowReaders[] = "pcsc_scan -r";
#endif

// A name from the command line as the service's functions take it.
ReaderName toReaderName(const std::string& name);

// For people: what a result of the service's means.
std::string pcscText(LONG result);

}  // namespace zelta::agent
