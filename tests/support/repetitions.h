// How often a test does again what may only go wrong now and then.
#pragma once

namespace zelta::test {

// `times`, and a tenth of it where the tests run under Wine: there every wait of a thread is a
// message to Wine's server, and takes longer than all that the test itself does.
constexpr int repetitions(int times) {
#if defined(_WIN32)
  return (times + 9) / 10;
#else
  return times;
#endif
}

}  // namespace zelta::test
