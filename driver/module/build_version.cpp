#include "driver/module/build_version.h"

#include "zelta_build_version.h"

namespace zelta {

const char* buildVersion() { return kBuildVersion; }

}  // namespace zelta
