// How often a test repeats an action that fails only occasionally.
#pragma once

namespace zelta::test {

// `times`, or a tenth of it under Wine, where every wait of a thread is a message to Wine's server
// and takes longer than all the rest of the test.
constexpr int repetitions(int times) {
#if defined(_WIN32)
  return (times + 9) / 10;
#else
  return times;
#endif
}

}  // namespace zelta::test
