// The three lines with which the driver's log begins, whatever the log's threshold.
#pragma once

#include <atomic>

namespace zelta {

// The build's version: the project's version and the commit that it was built from
// ("1.0.0+8274a62"), or "unknown" for the commit if the sources are not a checkout.
const char* buildVersion();

class StartBanner {
 public:
  // Writes on the first call only. Any thread.
  void writeOnce();

 private:
  std::atomic<bool> written_{false};
};

}  // namespace zelta
