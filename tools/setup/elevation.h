// Runs the program with an administrator's rights.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace zelta::setup {

bool isElevated();

// Runs this program with the same arguments and an administrator's rights, for which Windows asks
// the user. Returns its exit code; none if the user refused. Its output goes to this process's
// console.
std::optional<int> runElevated();

// For the process that `runElevated` starts: writes its output to the console of the other one.
void useConsoleOf(DWORD process);
// The option that the process gets, before the user's.
inline constexpr char kConsoleOption[] = "--console-of";

}  // namespace zelta::setup
