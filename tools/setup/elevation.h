// An administrator's rights.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace zelta::setup {

bool isElevated();

// Runs this program with the arguments of this process and an administrator's rights, for which
// Windows asks the user, and gives its exit code; none if the user refused. Its output comes to
// this process's console.
std::optional<int> runElevated();

// In the process that `runElevated` starts: takes the console of the other one for the output.
void useConsoleOf(DWORD process);
// The option that it is started with, before the user's.
inline constexpr char kConsoleOption[] = "--console-of";

}  // namespace zelta::setup
