// The three lines with which the driver's log begins, whatever the log's threshold.
#pragma once

#include <atomic>

namespace zelta {

class StartBanner {
 public:
  // The first call writes, any later one does nothing. Any thread.
  void writeOnce();

 private:
  std::atomic<bool> written_{false};
};

}  // namespace zelta
