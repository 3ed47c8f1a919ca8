// A trace as a self-contained page that needs no network: the time line, and each exchange to open.
#pragma once

#include <string>
#include <vector>

#include "tools/trace/record.h"

namespace zelta::trace {

std::string makePage(const std::vector<Record>& records);

}  // namespace zelta::trace
