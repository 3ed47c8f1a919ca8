// Mounts that only the test sees. A test is skipped if the system permits none.
#pragma once

#include <string>

namespace zelta::test {

// What the calling thread mounts from here on is its own and ends with it. Gives the reason if the
// system does not permit that, else an empty text.
std::string unshareMounts();

// The reason why `unshareMounts` would fail, or an empty text. The calling thread is left as it is.
std::string whyNoMounts();

}  // namespace zelta::test
