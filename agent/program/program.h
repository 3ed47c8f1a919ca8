#pragma once

namespace zelta::agent {

// The whole program; returns its exit code.
int runProgram(int argc, const char* const* argv);

}  // namespace zelta::agent
