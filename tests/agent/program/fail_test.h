// For threads of the agent's that must not fail in a test.
#pragma once

#include <gtest/gtest.h>

namespace zelta::test {

// An `agent::OnFailure`.
inline void failTest(const char* problem) { ADD_FAILURE() << problem; }

}  // namespace zelta::test
