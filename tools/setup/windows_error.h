// Failures of Windows' calls, as exceptions whose text is for the user.
#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

namespace zelta::setup {

std::string utf8(const std::wstring& text);
std::wstring wide(const std::string& text);

class WindowsError : public std::runtime_error {
 public:
  // `what` failed, for example "cannot make C:\\Folder".
  WindowsError(const std::string& what, DWORD number);
  DWORD number() const { return number_; }

 private:
  DWORD number_;
};

// Throws a WindowsError with the last error if the call gave FALSE.
void require(BOOL succeeded, const std::string& what);

}  // namespace zelta::setup
