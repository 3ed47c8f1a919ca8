#include "driver/module/start_banner.h"

#include "diagnostics/log.h"
#include "zelta_build_version.h"

namespace zelta {

namespace {

constexpr auto kLevel = static_cast<std::uint8_t>(LogLevel::kCritical);  // passes every threshold

constexpr char kRule[] =
    "--------------------------------------------------------------------------";
static_assert(sizeof kRule - 1 == 74, "the rule's length is part of the log's format");

}  // namespace

const char* buildVersion() { return kBuildVersion; }

void StartBanner::writeOnce() {
  if (written_.exchange(true)) return;
  logMessage(kLevel, 0, "%s", kRule);
  logMessage(kLevel, 0, "Vornhalt Virtual Smartcard Reader driver build %s", buildVersion());
  logMessage(kLevel, 0, "%s", kRule);
}

}  // namespace zelta
